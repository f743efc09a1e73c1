// Where the blocks and attributes of a description file stand. The hub forgets that when it has
// read a file; so it is read a second time, with the hub's own reader, by somebody who takes notes.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "libcxxutil/ut_attribute_list.h"
#include "libcxxutil/ut_options_reader.h"
#include "libcxxutil/ut_token_stream.h"
#include "tools/services/finding.h"

namespace services {

class BlockPlaces : private ut_options_observer {
 public:
  /// Reads `file`, as far as its statements are in order.
  explicit BlockPlaces(const char* file);

  const ut_attribute_list& root() const { return root_; }
  /// Where a block of this tree was first opened, or one of its attributes last set.
  Place of(const ut_attribute_list& block) const;
  Place of(const ut_attribute_list& block, const char* attribute) const;
  /// What reading the file reports, each with its place.
  const std::vector<Finding>& reports() const { return reports_; }
  /// What should have stood in place of a syntax error; empty if that can't be told.
  const std::string& expected() const { return expected_; }

  /// Where texts have no closing quote.
  const std::vector<Place>& unclosed_texts() const { return unclosedTexts_; }
  /// The innermost block that is open at the end, and how many are open; null if there is none.
  const ut_attribute_list* unclosed_block() const { return unclosedBlock_; }
  int unclosed_blocks() const { return unclosedBlocks_; }
  /// A block that was opened once more, by a name that its parent had already.
  struct Again {
    const ut_attribute_list* block;
    Place place;
  };
  const std::vector<Again>& opened_again() const { return openedAgain_; }
  /// Files, among this one and what it includes, that begin with a byte-order mark.
  const std::vector<std::string>& marked_files() const { return markedFiles_; }

 private:
  void read(ut_token_stream& stream);
  void noteEnd(const ut_attribute_list& scope);
  void opened(const ut_attribute_list& block, bool again) override;
  void assigned(const ut_attribute_list& block, const std::string& name) override;
  void unclosedText() override;
  void failed(const std::string& expected) override { expected_ = expected; }

  struct BlockPlace {
    Place place;
    std::unordered_map<std::string, Place> attributes;
  };

  ut_attribute_list root_{""};
  ut_token_stream* stream_ = nullptr;  // while it is read
  std::unordered_map<const ut_attribute_list*, BlockPlace> places_;
  std::vector<Finding> reports_;
  std::string expected_;
  std::vector<Place> unclosedTexts_;
  const ut_attribute_list* unclosedBlock_ = nullptr;
  int unclosedBlocks_ = 0;
  std::vector<Again> openedAgain_;
  std::vector<std::string> markedFiles_;
};

}  // namespace services
