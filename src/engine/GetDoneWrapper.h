// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace MirelSnapSnapshotCoordinator {

// Holds one reference on a reference-counted object (Get/Done) for a scope.
template <class T>
class GetDoneWrapper {
 public:
  GetDoneWrapper() = default;
  // Takes over the caller's reference.
  explicit GetDoneWrapper(T* object) : mObject(object) {}
  ~GetDoneWrapper() { Attach(nullptr); }
  GetDoneWrapper(const GetDoneWrapper&) = delete;
  GetDoneWrapper& operator=(const GetDoneWrapper&) = delete;

  // Takes over the reference of `object`; what was held before is dropped.
  void Attach(T* object) {
    if (mObject != nullptr) mObject->Done();
    mObject = object;
  }
  // Hands the reference to the caller and forgets the object.
  [[nodiscard]] T* Detach() {
    T* object = mObject;
    mObject = nullptr;
    return object;
  }
  bool operator!() const { return mObject == nullptr; }
  T* operator->() const { return mObject; }
  T* get() const { return mObject; }

 private:
  T* mObject = nullptr;
};

}  // namespace MirelSnapSnapshotCoordinator
