// The page without what changes, as the files page.* of this folder make it.
#pragma once

namespace hublinkctl {

/// The word by which its own style and program are told goes in each place of kPageNonce.
extern const char* const kPage;
inline constexpr const char* kPageNonce = "{{nonce}}";

}  // namespace hublinkctl
