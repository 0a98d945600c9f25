// A bounded first-in, first-out row of pointers. The owner does the locking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace standin {

template <typename T>
class PointerRing {
  public:
    explicit PointerRing(uint32_t capacity)
        : capacity_(capacity), slots_(std::make_unique_for_overwrite<T *[]>(capacity)) {}

    // False when the ring is full.
    bool Push(T *element) {
        if (size_ == capacity_) {
            return false;
        }
        const size_t place = size_t{first_} + size_;
        slots_[place < capacity_ ? place : place - capacity_] = element;
        ++size_;
        return true;
    }

    // Null when the ring is empty.
    T *Pop() {
        if (size_ == 0) {
            return nullptr;
        }
        T *element = slots_[first_];
        first_ = first_ + 1 == capacity_ ? 0 : first_ + 1;
        --size_;
        return element;
    }

    uint32_t Size() const {
        return size_;
    }

  private:
    const uint32_t capacity_;
    std::unique_ptr<T *[]> slots_;
    uint32_t first_ = 0;
    uint32_t size_ = 0;
};

}  // namespace standin
