// Where the blocks of a description file stand. The hub forgets that when it has read a file, and
// nearly always nobody asks; so a file is gone through a second time, token by token, when there is
// something to say about it.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "libcxxutil/ut_attribute_list.h"
#include "libcxxutil/ut_token_stream.h"
#include "tools/services/exact_lines.h"
#include "tools/services/finding.h"

namespace services {

class BlockPlaces {
 public:
  /// Goes through `file`, as far as its statements are in order.
  explicit BlockPlaces(const char* file);

  /// The blocks with their attributes, of which only the names and kinds are right.
  const ut_attribute_list& root() const { return root_; }
  /// Where a block of this tree was first opened.
  Place of(const ut_attribute_list& block) const;
  /// The exact place of a statement that the hub's code puts at `named`.
  Place of_statement(const Place& named) const { return lines_->of_statement(named); }
  /// What the preprocessor has reported on the way, each with its place. It is what reading the
  /// file reports, in the same order, but without the syntax errors, and perhaps with more behind
  /// one.
  const std::vector<Finding>& reports() const { return reports_; }

 private:
  void walk(ut_token_stream& stream);
  bool statement(ut_token_stream& stream, char* token);
  bool enter(const std::string& name, bool open, ut_token_stream& stream);
  bool close();
  bool value(const std::string& name, ut_token_stream& stream);

  ut_attribute_list root_{""};
  ut_attribute_list* scope_ = &root_;
  ut_attribute_list* current_ = &root_;
  std::unordered_map<const ut_attribute_list*, Place> places_;
  std::vector<Finding> reports_;
  std::optional<ExactLines> lines_;
};

}  // namespace services
