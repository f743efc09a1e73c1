#include "stp_transport/child/child_errors.h"

#include <algorithm>

void ChildErrors::open() {
  first_.clear();
  last_.clear();
  isCut_ = false;
  catcher_.open();
}

void ChildErrors::collect() {
  if (catcher_.hasNews()) collectAll();
}

void ChildErrors::collectAll() {
  keep(catcher_.take());
}

void ChildErrors::close() {
  collectAll();
  catcher_.close();
}

std::string ChildErrors::text() const {
  return isCut_ ? first_ + "\n[...]\n" + last_ : first_ + last_;
}

void ChildErrors::keep(std::string_view text) {
  const std::size_t toFirst = std::min(text.size(), STP_FIRST_ERRORS - first_.size());
  first_.append(text.substr(0, toFirst));
  last_.append(text.substr(toFirst));
  if (last_.size() <= STP_LAST_ERRORS) return;
  last_.erase(0, last_.size() - STP_LAST_ERRORS);
  isCut_ = true;
}
