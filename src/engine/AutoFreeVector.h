// SPDX-License-Identifier: Apache-2.0
//
// Vectors that free their elements when they are destroyed.
#pragma once

#include <cstdlib>
#include <vector>

namespace MirelSnapSnapshotCoordinator {

// Frees one element of an owning vector.
template <class T>
void __delete(T* element) {
  delete element;
}

// Owns objects of type T through their pointers.
template <class T>
class AutoFreeVectorSpecific : public std::vector<T*> {
 public:
  AutoFreeVectorSpecific() = default;
  AutoFreeVectorSpecific(const AutoFreeVectorSpecific&) = delete;
  AutoFreeVectorSpecific& operator=(const AutoFreeVectorSpecific&) = delete;
  ~AutoFreeVectorSpecific() {
    for (T* element : *this) __delete(element);
  }
};

// Owns plain heap memory.
template <class T>
class AutoFreeVector;

template <>
class AutoFreeVector<void*> : public std::vector<void*> {
 public:
  AutoFreeVector() = default;
  AutoFreeVector(const AutoFreeVector&) = delete;
  AutoFreeVector& operator=(const AutoFreeVector&) = delete;
  ~AutoFreeVector() {
    for (void* element : *this) std::free(element);
  }
};

}  // namespace MirelSnapSnapshotCoordinator
