// One block of a configuration tree: a name, attributes, and child blocks in order of creation.
//
// A block owns its attributes and its children, however deep the tree is. What the getters give
// belongs to the block and is valid until that attribute changes. Names are compared exactly, and
// given as texts; a null or empty name finds nothing.
//
// Getters come in two forms, which both give the caller's default when the attribute is absent or
// of another kind: the required one warns then, the optional one doesn't.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "indgen/memory.h"
#include "libcxxutil/ut_attribute.h"

class ut_attribute_list {
 public:
  /// Attributes that one block can hold.
  static constexpr int kMostAttributes = 32767;

  explicit ut_attribute_list(const char* name);
  ut_attribute_list(const ut_attribute_list&) = delete;
  ut_attribute_list& operator=(const ut_attribute_list&) = delete;
  virtual ~ut_attribute_list();

  /// Empty for the root and for anonymous blocks.
  const char* name() const { return name_.c_str(); }
  /// Null at the root.
  ut_attribute_list* parent() const { return parent_; }
  /// Whether the block was opened with `{` and hasn't seen its `}` yet.
  bool block_open() const { return block_open_; }
  void set_block_open(bool open) { block_open_ = open; }
  /// Where it was first opened, as `"file", line N`; empty if no file has opened it. Behind
  /// directives and lines that they hide the line may be an earlier one.
  const std::string& position() const { return position_; }
  void set_position(const char* position) { position_ = position; }
  /// Whether this is the root of an options database.
  bool is_database() const { return is_database_; }

  // Children.

  /// One, two or three steps down; null if a step finds nothing.
  ut_attribute_list* find_child(const char* name) const;
  ut_attribute_list* find_child(const char* a, const char* b) const;
  ut_attribute_list* find_child(const char* a, const char* b, const char* c) const;
  /// Appends a new child, even if the name exists.
  ut_attribute_list* add_child(const char* name);
  /// The first child of this name, else a new one.
  ut_attribute_list* find_or_add_child(const char* name);
  ut_attribute_list* first_child() const { return first_child_.get(); }
  ut_attribute_list* next_sibling() const { return next_.get(); }
  int child_count() const;
  /// Takes a child out of the tree. With `destroy` it is gone, else it is given to the caller. Null
  /// also if there is no such child.
  std::unique_ptr<ut_attribute_list> remove_child(ut_attribute_list* child, bool destroy);
  std::unique_ptr<ut_attribute_list> remove_child(const char* name, bool destroy);
  /// Adds a copy of `source`, which may be any block of this tree too, under its name or
  /// `new_name`; with `deep` its children come along. Gives the copy.
  ut_attribute_list* copy_child(const ut_attribute_list& source, bool deep,
                                const char* new_name = nullptr);
  /// Sorts by the texts of these attributes, then by name; a missing value goes behind all others.
  /// Keys may be null.
  void sort_children(const char* key1 = nullptr, const char* key2 = nullptr);
  /// Each child of this name in turn moves to the front.
  void move_child_to_front(const char* name);
  /// The names from the outermost block to this one, joined by `.`; with `with_file` behind the
  /// name and `:` of the file they came from, if the database has read exactly one.
  std::string full_name(bool with_file) const;

  // Getters.

  const char* require_str(const char* name, const char* fallback = nullptr) const;
  const char* str_value(const char* name, const char* fallback = nullptr) const;
  std::int32_t require_int32(const char* name, std::int32_t fallback = 0) const;
  std::int32_t int32_value(const char* name, std::int32_t fallback = 0) const;
  /// Whether the number is other than 0. A text counts as well: "yes", "on", "1" and "true" in any
  /// case, behind white space, are true. A list is false.
  bool require_bool(const char* name, bool fallback = false) const;
  /// Whether the number is other than 0.
  bool bool_value(const char* name, bool fallback = false) const;
  /// The head of the list.
  const ut_str_node* require_str_list(const char* name,
                                      const ut_str_node* fallback = nullptr) const;
  const ut_str_node* str_list_value(const char* name, const ut_str_node* fallback = nullptr) const;
  const ut_int32_node* require_int32_list(const char* name,
                                          const ut_int32_node* fallback = nullptr) const;
  const ut_int32_node* int32_list_value(const char* name,
                                        const ut_int32_node* fallback = nullptr) const;
  /// A text; warns if it is a drive's file name whose `\` were taken for escapes.
  const char* require_filename(const char* name, const char* fallback = nullptr) const;
  const char* filename_value(const char* name, const char* fallback = nullptr) const;
  /// Required texts as new ones, in `"` quotes or escaped without; the default as it is.
  gen_text require_quoted_str(const char* name, const char* fallback = nullptr) const;
  gen_text require_escaped_str(const char* name, const char* fallback = nullptr) const;
  /// A number, or a text that is one as a whole and isn't -1. The first form warns when the
  /// attribute is absent.
  std::int32_t int32_or_parsed(const char* name, std::int32_t fallback = 0) const;
  std::int32_t int32_or_parsed_quiet(const char* name, std::int32_t fallback = 0) const;

  // The same through one child or two; the default also when a child is missing.

  const char* child_require_str(const char* child, const char* name,
                                const char* fallback = nullptr) const;
  const char* child_require_str(const char* child, const char* grandchild, const char* name,
                                const char* fallback) const;
  const char* child_str_value(const char* child, const char* name,
                              const char* fallback = nullptr) const;
  std::int32_t child_require_int32(const char* child, const char* name,
                                   std::int32_t fallback = 0) const;
  std::int32_t child_require_int32(const char* child, const char* grandchild, const char* name,
                                   std::int32_t fallback) const;
  std::int32_t child_int32_value(const char* child, const char* name,
                                 std::int32_t fallback = 0) const;
  bool child_bool_value(const char* child, const char* name, bool fallback = false) const;

  // Attributes one by one, in order.

  bool has_attribute(const char* name) const { return find(name) != nullptr; }
  /// For those who need to tell an absent one from each value. Null if there is none; valid as long
  /// as what first_attribute() gives.
  const ut_attribute* find_attribute(const char* name) const { return find(name); }
  /// False if there was none.
  bool remove_attribute(const char* name);
  int attribute_count() const { return static_cast<int>(attributes_.size()); }
  /// Null at the end. What is given is valid until attributes are added or removed.
  const ut_attribute* first_attribute() const;
  const ut_attribute* next_attribute(const ut_attribute* a) const;

  static ut_attribute_type attribute_type(const ut_attribute* a) { return a->type(); }
  static const char* attribute_name(const ut_attribute* a) { return a->name().c_str(); }
  /// Null if `a` is of another kind; so for the lists.
  static const char* attribute_str(const ut_attribute* a);
  /// -1 if `a` is of another kind.
  static std::int32_t attribute_int32(const ut_attribute* a);
  static const ut_str_node* attribute_str_list(const ut_attribute* a);
  static const ut_int32_node* attribute_int32_list(const ut_attribute* a);

  /// Texts closed by a null entry, or none at all.
  struct Strings {
    Strings() = default;
    Strings(Strings&&) = default;  // a copy would point into the original
    Strings& operator=(Strings&&) = default;
    std::vector<const char*> texts;
    std::vector<std::string> copies;  ///< what `texts` points into, if they were duplicated
    /// Null for none.
    const char* const* get() const { return texts.empty() ? nullptr : texts.data(); }
  };
  /// The texts of a `str` or `str_list`, the block's own ones or, with `copy`, duplicates. `count`,
  /// which may be null, leaves out the closing entry. None and 0 for other kinds.
  static Strings attribute_strings(const ut_attribute* a, bool copy, int* count);

  // Setters. They tell whether the attribute existed, and take null for an empty text. An attribute
  // that the block has no room for is reported and left out; so is one without a name.

  bool add_or_replace_str(const char* name, const char* value);
  bool add_or_replace_int32(const char* name, std::int32_t value);
  /// Behind what the text holds; an attribute of another kind becomes this text.
  bool append_str(const char* name, const char* value);
  /// A list of this one item.
  bool set_str_list(const char* name, const char* value);
  bool set_int32_list(const char* name, std::int32_t value);
  /// Behind the last item; an attribute of another kind becomes a list of this one item.
  bool append_str_list(const char* name, const char* value);
  bool append_int32_list(const char* name, std::int32_t value);
  /// Without looking whether the name exists, so that the answer is always false.
  bool add_str(const char* name, const char* value);
  bool add_int32(const char* name, std::int32_t value);
  /// Copies texts and numbers; names that exist are passed over unless `overwrite` is set. A list
  /// is reported as an error and left out.
  void copy_attributes(const ut_attribute_list& source, bool overwrite);
  /// Whether an attribute of this name exists or has room.
  bool has_room_for(const char* name) const;

 protected:
  void set_is_database() { is_database_ = true; }
  /// The one file that the tree was read from; null if there is none or there are several.
  virtual const char* only_file() const { return nullptr; }

 private:
  // Places by name, built when a block gets large; the first of equal names counts.
  using ChildIndex = std::unordered_map<std::string_view, ut_attribute_list*>;
  using AttributeIndex = std::unordered_map<std::string, std::size_t>;

  void link(std::unique_ptr<ut_attribute_list> child);
  std::vector<std::unique_ptr<ut_attribute_list>> takeChildren();
  void giveChildren(std::vector<std::unique_ptr<ut_attribute_list>> children);
  const ut_attribute* find(const char* name) const;
  ut_attribute* find(const char* name);
  const ut_attribute* require(const char* name, ut_attribute_type type) const;
  void warnMissing(const char* name, ut_attribute_type type) const;
  const char* checkedFilename(const char* name, const char* value) const;
  std::int32_t parsedOr(const ut_attribute* a, std::int32_t fallback) const;
  bool addNew(const char* name, ut_attribute::Value value);
  bool replace(const char* name, ut_attribute::Value value);
  template <class Item>
  bool appendItem(const char* name, Item item);

  std::string name_;
  ut_attribute_list* parent_ = nullptr;
  std::unique_ptr<ut_attribute_list> next_, first_child_;
  ut_attribute_list* last_child_ = nullptr;
  std::string position_;
  bool block_open_ = false, is_database_ = false;
  std::vector<ut_attribute> attributes_;
  mutable std::unique_ptr<ChildIndex> childIndex_;
  mutable std::unique_ptr<AttributeIndex> attributeIndex_;
};
