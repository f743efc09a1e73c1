#include "indgen/sort.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include "indgen/memory.h"

namespace {

constexpr std::size_t kExchangeBelow = 6;  // elements of a range sorted by exchange
constexpr std::size_t kMedianOfMedians = 36;
constexpr std::size_t kIndexesOnStack = 64;

using Word = std::uintptr_t;

template <class Unit>
void swapUnits(void* a, void* b, std::size_t size) {
  auto* x = static_cast<char*>(a);
  auto* y = static_cast<char*>(b);
  for (std::size_t done = 0; done < size; done += sizeof(Unit)) {
    Unit first, second;
    std::memcpy(&first, x + done, sizeof(Unit));
    std::memcpy(&second, y + done, sizeof(Unit));
    std::memcpy(x + done, &second, sizeof(Unit));
    std::memcpy(y + done, &first, sizeof(Unit));
  }
}

bool wordAligned(const void* address) {
  return reinterpret_cast<std::uintptr_t>(address) % sizeof(Word) == 0;
}

void defaultSwap(void* a, void* b, std::size_t size) {
  if (wordAligned(a) && wordAligned(b) && size % sizeof(Word) == 0)
    swapUnits<Word>(a, b, size);
  else
    swapUnits<char>(a, b, size);
}

// The quicksort over element numbers. With `order`, it carries the numbers that the elements
// started with, and lets them decide between equal elements.
class Sorter {
 public:
  Sorter(void* context, void* base, std::size_t size, gen_compare compare, gen_swap swap,
         std::size_t* order)
      : context_(context),
        base_(static_cast<char*>(base)),
        size_(size),
        compare_(compare),
        swap_(swap ? swap : defaultSwap),
        order_(order) {}

  void sort(std::size_t first, std::size_t count) {
    while (count >= kExchangeBelow) {
      exchange(first, pivot(first, count));
      const std::size_t middle = partition(first, count);
      const std::size_t left = middle - first, right = count - left - 1;
      // The longer part is left to the loop, which keeps the recursion shallow.
      if (left < right) {
        sort(first, left);
        first = middle + 1;
        count = right;
      } else {
        sort(middle + 1, right);
        count = left;
      }
    }
    sortByExchange(first, count);
  }

 private:
  void* at(std::size_t i) const { return base_ + i * size_; }

  bool less(std::size_t a, std::size_t b) const {
    const int result = compare_(context_, at(a), at(b));
    if (result != 0 || !order_) return result < 0;
    return order_[a] < order_[b];
  }

  void exchange(std::size_t a, std::size_t b) {
    if (a == b) return;
    swap_(at(a), at(b), size_);
    if (order_) std::swap(order_[a], order_[b]);
  }

  void sortByExchange(std::size_t first, std::size_t count) {
    for (std::size_t i = first + 1; i < first + count; ++i)
      for (std::size_t j = i; j > first && less(j, j - 1); --j) exchange(j, j - 1);
  }

  std::size_t median(std::size_t a, std::size_t b, std::size_t c) const {
    if (less(a, b)) return less(b, c) ? b : less(a, c) ? c : a;
    return less(a, c) ? a : less(b, c) ? c : b;
  }

  std::size_t pivot(std::size_t first, std::size_t count) const {
    const std::size_t middle = first + count / 2, last = first + count - 1;
    if (count < kMedianOfMedians) return median(first, middle, last);
    const std::size_t step = count / 8;
    return median(median(first, first + step, first + 2 * step),
                  median(middle - step, middle, middle + step),
                  median(last - 2 * step, last - step, last));
  }

  // Splits a range by the pivot in its first element and returns the place where that ends up. Both
  // scans stop at elements equal to the pivot, so that many equal ones still split in halves.
  std::size_t partition(std::size_t first, std::size_t count) {
    std::size_t low = first, high = first + count;
    for (;;) {
      do ++low;
      while (low < high && less(low, first));
      do --high;
      while (high > first && less(first, high));
      if (low >= high) break;
      exchange(low, high);
    }
    exchange(first, high);
    return high;
  }

  void* context_;
  char* base_;
  std::size_t size_;
  gen_compare compare_;
  gen_swap swap_;
  std::size_t* order_;
};

struct Freed {
  void operator()(void* block) const { gen_free(block); }
};

}  // namespace

void gen_sort(void* context, void* base, std::size_t count, std::size_t size, gen_compare compare,
              gen_swap swap) {
  Sorter(context, base, size, compare, swap, nullptr).sort(0, count);
}

void gen_sort_stable(void* context, void* base, std::size_t count, std::size_t size,
                     gen_compare compare, gen_swap swap) {
  std::size_t onStack[kIndexesOnStack];
  std::unique_ptr<std::size_t[], Freed> allocated;
  if (count > kIndexesOnStack)
    allocated.reset(static_cast<std::size_t*>(gen_alloc(count, sizeof(std::size_t))));
  std::size_t* const order = allocated ? allocated.get() : onStack;
  for (std::size_t i = 0; i < count; ++i) order[i] = i;
  Sorter(context, base, size, compare, swap, order).sort(0, count);
}
