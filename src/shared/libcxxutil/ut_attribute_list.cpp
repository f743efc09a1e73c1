// The tree of blocks.
#include "libcxxutil/ut_attribute_list.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace {

// From here on a block looks names up in an index: a file could otherwise make the search for each
// of its names as long as itself.
constexpr std::size_t kIndexedChildren = 16;

bool isEmpty(const char* name) {
  return !name || !*name;
}

}  // namespace

ut_attribute_list::ut_attribute_list(const char* name) : name_(name ? name : "") {}

// A tree of any depth goes without recursion: the children of each child join those that wait.
ut_attribute_list::~ut_attribute_list() {
  while (first_child_) {
    const std::unique_ptr<ut_attribute_list> child = std::move(first_child_);
    first_child_ = std::move(child->next_);
    if (!child->first_child_) continue;
    child->last_child_->next_ = std::move(first_child_);
    first_child_ = std::move(child->first_child_);
  }
}

ut_attribute_list* ut_attribute_list::find_child(const char* name) const {
  if (isEmpty(name)) return nullptr;
  if (!childIndex_) {
    std::size_t seen = 0;
    for (ut_attribute_list* child = first_child(); child; child = child->next_sibling()) {
      if (child->name_ == name) return child;
      ++seen;
    }
    if (seen < kIndexedChildren) return nullptr;
    childIndex_ = std::make_unique<ChildIndex>();
    for (ut_attribute_list* child = first_child(); child; child = child->next_sibling())
      childIndex_->emplace(child->name_, child);
  }
  const auto found = childIndex_->find(name);
  return found == childIndex_->end() ? nullptr : found->second;
}

ut_attribute_list* ut_attribute_list::find_child(const char* a, const char* b) const {
  const ut_attribute_list* child = find_child(a);
  return child ? child->find_child(b) : nullptr;
}

ut_attribute_list* ut_attribute_list::find_child(const char* a, const char* b,
                                                 const char* c) const {
  const ut_attribute_list* child = find_child(a, b);
  return child ? child->find_child(c) : nullptr;
}

ut_attribute_list* ut_attribute_list::add_child(const char* name) {
  link(std::make_unique<ut_attribute_list>(name));
  return last_child_;
}

ut_attribute_list* ut_attribute_list::find_or_add_child(const char* name) {
  ut_attribute_list* child = find_child(name);
  return child ? child : add_child(name);
}

int ut_attribute_list::child_count() const {
  int count = 0;
  for (const ut_attribute_list* child = first_child(); child; child = child->next_sibling())
    ++count;
  return count;
}

std::unique_ptr<ut_attribute_list> ut_attribute_list::remove_child(ut_attribute_list* child,
                                                                   bool destroy) {
  if (!child || child->parent_ != this) return nullptr;
  ut_attribute_list* before = nullptr;
  for (ut_attribute_list* at = first_child(); at != child; at = at->next_sibling()) before = at;
  std::unique_ptr<ut_attribute_list>& place = before ? before->next_ : first_child_;
  std::unique_ptr<ut_attribute_list> removed = std::move(place);
  place = std::move(removed->next_);
  if (last_child_ == child) last_child_ = before;
  removed->parent_ = nullptr;
  childIndex_.reset();
  if (destroy) return nullptr;
  return removed;
}

std::unique_ptr<ut_attribute_list> ut_attribute_list::remove_child(const char* name, bool destroy) {
  return remove_child(find_child(name), destroy);
}

ut_attribute_list* ut_attribute_list::copy_child(const ut_attribute_list& source, bool deep,
                                                 const char* new_name) {
  // Linked only when it is whole: this block may lie within the source.
  auto copy = std::make_unique<ut_attribute_list>(new_name ? new_name : source.name());
  copy->attributes_ = source.attributes_;
  const ut_attribute_list* from = deep ? source.first_child() : nullptr;
  ut_attribute_list* under = copy.get();
  while (from) {
    ut_attribute_list* added = under->add_child(from->name());
    added->attributes_ = from->attributes_;
    if (from->first_child()) {
      from = from->first_child();
      under = added;
      continue;
    }
    while (from != &source && !from->next_sibling()) {
      from = from->parent();
      if (from != &source) under = under->parent();
    }
    from = from == &source ? nullptr : from->next_sibling();
  }
  link(std::move(copy));
  return last_child_;
}

void ut_attribute_list::sort_children(const char* key1, const char* key2) {
  const auto compareBy = [](const char* key, const ut_attribute_list& a,
                            const ut_attribute_list& b) {
    const char *x = a.str_value(key), *y = b.str_value(key);
    if (!x || !y) return (x ? 0 : 1) - (y ? 0 : 1);
    return std::strcmp(x, y);
  };
  const auto before = [&](const auto& a, const auto& b) {
    for (const char* key : {key1, key2}) {
      const int order = key ? compareBy(key, *a, *b) : 0;
      if (order != 0) return order < 0;
    }
    return a->name_ < b->name_;
  };
  auto children = takeChildren();
  std::stable_sort(children.begin(), children.end(), before);
  giveChildren(std::move(children));
}

void ut_attribute_list::move_child_to_front(const char* name) {
  if (isEmpty(name)) return;
  auto children = takeChildren();
  // One after the other goes to the head, so that the last of them comes first.
  std::stable_partition(children.begin(), children.end(),
                        [&](const auto& child) { return child->name_ == name; });
  const auto others = std::find_if(children.begin(), children.end(),
                                   [&](const auto& child) { return child->name_ != name; });
  std::reverse(children.begin(), others);
  giveChildren(std::move(children));
}

std::string ut_attribute_list::full_name(bool with_file) const {
  std::vector<const ut_attribute_list*> path;
  const ut_attribute_list* root = this;
  for (; root->parent_; root = root->parent_) path.push_back(root);
  std::string result;
  const char* file = with_file ? root->only_file() : nullptr;
  if (file) result.append(file).append(":");
  for (auto at = path.rbegin(); at != path.rend(); ++at) {
    if (at != path.rbegin()) result += '.';
    result += (*at)->name_;
  }
  return result;
}

void ut_attribute_list::link(std::unique_ptr<ut_attribute_list> child) {
  child->parent_ = this;
  if (childIndex_ && !child->name_.empty()) childIndex_->emplace(child->name_, child.get());
  std::unique_ptr<ut_attribute_list>& end = last_child_ ? last_child_->next_ : first_child_;
  end = std::move(child);
  last_child_ = end.get();
}

std::vector<std::unique_ptr<ut_attribute_list>> ut_attribute_list::takeChildren() {
  childIndex_.reset();
  std::vector<std::unique_ptr<ut_attribute_list>> children;
  while (first_child_) {
    children.push_back(std::move(first_child_));
    first_child_ = std::move(children.back()->next_);
  }
  last_child_ = nullptr;
  return children;
}

void ut_attribute_list::giveChildren(std::vector<std::unique_ptr<ut_attribute_list>> children) {
  for (auto& child : children) link(std::move(child));
}
