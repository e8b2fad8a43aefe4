// SPDX-License-Identifier: Apache-2.0
//
// The job's state: how it ends, and how the agent waits for that.
#include <uuid/uuid.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "engine/Deadline.h"
#include "engine/MirelSnapshotEngine.h"
#include "qxtools/Log.h"

namespace MirelSnapSnapshotCoordinator {

const char* SnapshotStateAsString(SnapshotState state) {
  switch (state) {
    case StateUninitialized:
      return "StateUninitialized";
    case StateSnapshotSetStarted:
      return "StateSnapshotSetStarted";
    case StateSnapshotSetInProgress:
      return "StateSnapshotSetInProgress";
    case StateSnapshotSetDone:
      return "StateSnapshotSetDone";
    case StateSnapshotSetUnDone:
      return "StateSnapshotSetUnDone";
  }
  return "<StateSnapshotSetUnnknown>";  // spelled so: the text is the contract
}

void MirelSnapshotEngine::ResetState() {
  static constexpr char kName[] = "ResetState";
  const AutoLock lock(sLock);
  QX_Zprintf(0, L"%hs: Current State is %hs", kName, SnapshotStateAsString(mState));
  QX_Zprintf(0, L"%hs: Current SnapResult: %d", kName, mSnapResult);

  SnapshotState newState = mState;
  bool endsSetInProgress = false;
  switch (mState) {
    case StateSnapshotSetInProgress:
      newState = StateSnapshotSetDone;
      endsSetInProgress = mSnapResult != 0;  // a successful set stays in progress until it is deleted
      pthread_cond_signal(&sCond);
      break;
    case StateSnapshotSetDone:
      if (mSnapResult == 0) newState = StateSnapshotSetUnDone;
      // Also after a failed job, whose set ended long ago: a set that another engine opened meanwhile ends too. That is
      // the contract.
      endsSetInProgress = true;
      break;
    case StateSnapshotSetStarted:
      endsSetInProgress = true;
      break;
    default:
      QX_Zprintf(0, L"%hs: Nothing to be done at Current State!", kName);
      break;
  }

  if (endsSetInProgress) clearSetInProgress();
  if (newState != mState) {
    mState = newState;
    QX_Zprintf(0, L"%hs: New State is now: %hs", kName, SnapshotStateAsString(mState));
  }
}

void MirelSnapshotEngine::clearSetInProgress() {
  static constexpr char kName[] = "ResetState";
  if (UnixInterfaces::InlineIsNULLGUID(sUUID)) {
    QX_Zprintf(0, L"%hs: sUUID is already NULL UUID!", kName);
    return;
  }
  uuid_t bytes;
  std::memcpy(bytes, &sUUID, sizeof bytes);
  char text[UUID_STR_LEN];
  uuid_unparse(bytes, text);
  QX_Zprintf(0, L"%hs: Nullifying sUUID, current value: %hs!", kName, text);
  sUUID = {};
  pthread_cond_signal(&sCondNewSnapshotSet);
}

int MirelSnapshotEngine::WaitInternal(unsigned int timeoutMs, bool waitForNewSet, bool anyState) {
  static constexpr char kName[] = "WaitInternal";
  const AutoLock lock(sLock);
  if (!anyState) {
    if (mState == StateSnapshotSetDone) return USC_S_ASYNC_FINISHED;
    if (mState != StateSnapshotSetInProgress) {
      QX_Zprintf(0, L"%hs: ERROR: Current status: %hs is invalid, returning E_UNEXPECTED", kName,
                 SnapshotStateAsString(mState));
      return E_UNEXPECTED;
    }
  }

  timespec deadline{};
  if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) {
    const int error = errno;
    QX_Zprintf(0, L"%hs: ERROR: clock_gettime() failed with Error: %d (%hs), returning E_UNEXPECTED", kName, error,
               std::strerror(error));
    return E_UNEXPECTED;
  }
  AddMilliseconds(deadline, timeoutMs);

  // One wait, no loop: every wake-up counts as the end. That is the contract.
  const int error = pthread_cond_timedwait(waitForNewSet ? &sCondNewSnapshotSet : &sCond, &sLock, &deadline);
  if (error == 0) return USC_S_ASYNC_FINISHED;
  if (error == ETIMEDOUT) return USC_S_ASYNC_PENDING;
  QX_Zprintf(0, L"%hs: ERROR: pthread_cond_timedwait() failed with Error: %d (%hs), returning E_UNEXPECTED", kName,
             error, std::strerror(error));
  return E_UNEXPECTED;
}

}  // namespace MirelSnapSnapshotCoordinator
