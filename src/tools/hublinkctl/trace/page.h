// The page without its data, as the files page.* of this folder make it.
#pragma once

namespace trace {

/// The data goes in place of kPageData, which stands in it once.
extern const char* const kPage;
inline constexpr const char* kPageData = "{{data}}";

}  // namespace trace
