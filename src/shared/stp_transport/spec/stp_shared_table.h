// A table that negotiation fills in. Most peers are built from the same interface, so that their
// tables come out equal: those are held once, however many links there are, and copied when one of
// them is to change.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

template <class T>
class STPSharedTable {
 public:
  explicit STPSharedTable(std::vector<T> rows) : rows_(std::make_shared<Rows>(std::move(rows))) {}

  std::size_t size() const { return rows_->size(); }
  const T& operator[](std::size_t index) const { return (*rows_)[index]; }
  auto begin() const { return rows_->begin(); }
  auto end() const { return rows_->end(); }
  operator const std::vector<T>&() const { return *rows_; }
  bool operator==(const std::vector<T>& rows) const { return *rows_ == rows; }

  /// The rows, this table's alone; valid until the next share().
  std::vector<T>& edit() {
    if (rows_.use_count() != 1) rows_ = std::make_shared<Rows>(*rows_);
    return *rows_;
  }
  /// Goes over to an equal table that another holds, or offers its own to those who come.
  void share() {
    std::erase_if(offered(), [](const auto& offer) { return offer.expired(); });
    for (const auto& offer : offered())
      if (auto rows = offer.lock(); *rows == *rows_) {
        rows_ = std::move(rows);
        return;
      }
    if (offered().size() < kMostOffers) offered().push_back(rows_);
  }

 private:
  using Rows = std::vector<T>;
  // Of peers with tables of their own there are few, and a search must stay cheap.
  static constexpr std::size_t kMostOffers = 16;
  static std::vector<std::weak_ptr<Rows>>& offered() {
    static thread_local std::vector<std::weak_ptr<Rows>> tables;
    return tables;
  }

  std::shared_ptr<Rows> rows_;
};
