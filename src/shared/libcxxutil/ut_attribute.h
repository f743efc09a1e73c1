// One attribute of a configuration block: a name with a text, a number, or a list of either.
//
// The attribute owns its value. Lists are singly linked and remember their last node, so that
// appending costs no walk.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>

template <class Value>
struct ut_list_node {
  std::unique_ptr<ut_list_node> next;
  Value value;
};

using ut_str_node = ut_list_node<std::string>;
using ut_int32_node = ut_list_node<std::int32_t>;

template <class Value>
class ut_value_list {
 public:
  using Node = ut_list_node<Value>;

  ut_value_list() = default;
  ut_value_list(const ut_value_list& other) {
    for (const Node* node = other.head(); node; node = node->next.get()) append(node->value);
  }
  ut_value_list(ut_value_list&& other) noexcept
      : head_(std::move(other.head_)), tail_(std::exchange(other.tail_, nullptr)) {}
  ut_value_list& operator=(ut_value_list other) noexcept {
    std::swap(head_, other.head_);
    std::swap(tail_, other.tail_);
    return *this;
  }
  // Node by node: left to itself a long list would be destroyed by recursion.
  ~ut_value_list() {
    while (head_) head_ = std::move(head_->next);
  }

  void append(Value value) {
    std::unique_ptr<Node>& end = tail_ ? tail_->next : head_;
    end = std::make_unique<Node>(Node{nullptr, std::move(value)});
    tail_ = end.get();
  }
  /// Null for an empty list.
  const Node* head() const { return head_.get(); }

 private:
  std::unique_ptr<Node> head_;
  Node* tail_ = nullptr;
};

enum class ut_attribute_type : std::uint8_t { str = 0, int32 = 1, str_list = 2, int32_list = 3 };

/// The word for a kind in messages.
const char* ut_attribute_type_word(ut_attribute_type type);

class ut_attribute {
 public:
  /// In the order of the kinds' codes.
  using Value = std::variant<std::string, std::int32_t, ut_value_list<std::string>,
                             ut_value_list<std::int32_t>>;

  ut_attribute(std::string name, Value value) : name_(std::move(name)), value_(std::move(value)) {}

  const std::string& name() const { return name_; }
  ut_attribute_type type() const { return static_cast<ut_attribute_type>(value_.index()); }
  /// The value as `Kind`, one of the types of Value; null if it is of another kind.
  template <class Kind>
  const Kind* as() const {
    return std::get_if<Kind>(&value_);
  }
  template <class Kind>
  Kind* as() {
    return std::get_if<Kind>(&value_);
  }
  void set(Value value) { value_ = std::move(value); }

 private:
  std::string name_;
  Value value_;
};
