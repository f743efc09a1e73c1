#include "libcxxutil/ut_macro_table.h"

#include <cstring>
#include <utility>

void ut_macro_table::set(const ut_string& name, const ut_string& value) {
  const ut_string stored = value.is_null() ? ut_string("") : value;
  const int side = root_ ? splay(name) : 0;
  if (root_ && side == 0) {
    root_->value = stored;
    return;
  }
  auto place = entries_.end();
  if (root_) place = side < 0 ? root_->place : std::next(root_->place);
  place = entries_.insert(place, Entry{name, stored, nullptr, nullptr, {}});
  Entry& added = *place;
  added.place = place;
  if (root_ && side < 0) {
    added.left = std::exchange(root_->left, nullptr);
    added.right = root_;
  } else if (root_) {
    added.right = std::exchange(root_->right, nullptr);
    added.left = root_;
  }
  root_ = &added;
}

const ut_string* ut_macro_table::find(const ut_string& name) {
  return root_ && splay(name) == 0 ? &root_->value : nullptr;
}

bool ut_macro_table::remove(const ut_string& name) {
  if (!find(name)) return false;
  const Entry& gone = *root_;
  root_ = gone.left;
  if (root_) {
    // The name is greater than all of these, so that their greatest comes up, with its right free.
    splay(name);
    root_->right = gone.right;
  } else {
    root_ = gone.right;
  }
  entries_.erase(gone.place);
  return true;
}

void ut_macro_table::merge(const ut_macro_table& other) {
  if (&other == this) return;
  for (const Entry& entry : other.entries_) set(entry.name, entry.value);
}

// Brings the entry nearest to `name` to the root of a tree that isn't empty, and tells on which
// side of it `name` lies: negative for before.
int ut_macro_table::splay(const ut_string& name) {
  Entry ends;  // gathers what is smaller on its right, what is greater on its left
  Entry *smaller = &ends, *greater = &ends;
  const auto order = [&name](const Entry* entry) {
    return std::strcmp(name.c_str(), entry->name.c_str());
  };
  Entry* top = root_;
  int side = order(top);
  while (side != 0) {
    Entry* Entry::*const inner = side < 0 ? &Entry::left : &Entry::right;
    Entry* Entry::*const outer = side < 0 ? &Entry::right : &Entry::left;
    Entry* below = top->*inner;
    if (!below) break;
    int belowSide = order(below);
    if ((side < 0 && belowSide < 0) || (side > 0 && belowSide > 0)) {
      top->*inner = below->*outer;
      below->*outer = top;
      top = below;
      side = belowSide;
      below = top->*inner;
      if (!below) break;
      belowSide = order(below);
    }
    Entry*& gatherer = side < 0 ? greater : smaller;
    gatherer->*inner = top;
    gatherer = top;
    top = below;
    side = belowSide;
  }
  smaller->right = top->left;
  greater->left = top->right;
  top->left = ends.right;
  top->right = ends.left;
  root_ = top;
  return side;
}
