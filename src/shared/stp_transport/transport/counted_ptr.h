// A pointer that holds one reference of an object which counts its own (addRef, release).
#pragma once

#include <utility>

template <class T>
class CountedPtr {
 public:
  CountedPtr() = default;
  /// Takes a further reference on `object`, or holds none for null.
  explicit CountedPtr(T* object) : object_(object) {
    if (object_) object_->addRef();
  }
  /// Takes over the reference that the caller holds, such as the one of a new object.
  static CountedPtr adopt(T* object) {
    CountedPtr pointer;
    pointer.object_ = object;
    return pointer;
  }
  CountedPtr(const CountedPtr& other) : CountedPtr(other.object_) {}
  CountedPtr(CountedPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  CountedPtr& operator=(CountedPtr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~CountedPtr() {
    if (object_) object_->release();
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }
  void reset() { *this = CountedPtr(); }

 private:
  T* object_ = nullptr;
};

/// A new counted object, held by the one reference that it starts with.
template <class T, class... Arguments>
CountedPtr<T> makeCounted(Arguments&&... arguments) {
  return CountedPtr<T>::adopt(new T(std::forward<Arguments>(arguments)...));
}
