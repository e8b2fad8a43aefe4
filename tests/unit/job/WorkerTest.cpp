// SPDX-License-Identifier: Apache-2.0
//
// What the worker does, and what it leaves.
#include <fcntl.h>
#include <linux/fs.h>
#include <syslog.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <set>

#include "Interposed.h"
#include "JobTest.h"
#include "Locale.h"
#include "LogCapture.h"
#include "driver/DriverProtocol.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/Allocations.h"
#include "interpose/OpenedFiles.h"

namespace test {
namespace {

using Lines = std::vector<std::wstring>;
using Params = MirelSnapshotEngine::SnapshotThreadParams;
using Requests = std::list<SnapVolumeInformation>;

int exitCode(void* value) { return static_cast<int>(reinterpret_cast<std::intptr_t>(value)); }

std::wstring failureText(int code) {
  return L"DoSnapshotOnSeparateThread: ERROR: <Driver Interface>::SnapVolume() failed, Snap Result: " +
         std::to_wstring(code) + L"!";
}

// The descriptors that a program would inherit that this process executes now.
std::set<int> inheritedDescriptors() {
  std::set<int> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator(std::string(kRealProc) + "/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) descriptors.insert(descriptor);
  }
  return descriptors;
}

// --- Whole jobs

class Worker : public JobTest {
 protected:
  std::wstring snapDevice(const Volume& of) {
    return L"/dev/snap" + std::to_wstring(of.loop().major()) + L"_" + std::to_wstring(of.loop().minor());
  }
  // Runs a job that fails.
  std::pair<int, int> failedJob() {
    const Engine engine;
    const _SSGUIDPLAIN setId = engine.start();
    engine.addWithRelocation(volume);
    log.clear();
    Job job(engine);
    awaitEnd(engine, job);
    EXPECT_EQ(engine->mState, StateSnapshotSetDone);
    EXPECT_TRUE(noSetInProgress());
    EXPECT_FALSE(isListed(setId));
    const std::pair<int, int> result = outcome(job);
    EXPECT_TRUE(log.has(failureText(result.second)));
    return result;
  }

  Volume volume{"ext4", 16 << 20};
};

TEST_F(Worker, snaps_all_volumes_with_one_command) {
  const Volume other("ext4", 16 << 20);
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  engine.addWithRelocation(other);
  log.clear();
  Job job(engine);
  awaitEnd(engine, job);
  EXPECT_EQ(outcome(job), std::make_pair(USC_S_ASYNC_FINISHED, 0));
  ASSERT_EQ(driver.calls(IOC_SNAP).size(), 1u);
  EXPECT_EQ(driver.calls(IOC_SNAP)[0].header().requestValue, 2u);
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateSnapshotSetInProgress", L"ResetState: Current SnapResult: 0",
                   L"ResetState: New State is now: StateSnapshotSetDone"}));
  forget(setId);
}

TEST_F(Worker, the_command_carries_the_volume_as_the_set_knows_it) {
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  Job job(engine);
  awaitEnd(engine, job);
  const auto entry = driver.calls(IOC_SNAP).at(0).get<SnapVolumeEntry>(sizeof(_ioctlCmd));
  const GetDoneWrapper<MirelSnapshotVolumeParams> params(engine->mSnapshotSetParams->GetAt(0));
  EXPECT_EQ(entry.blockSize, params->GetDeviceBlockSize());
  EXPECT_EQ(entry.numBlocks, (16u << 20) / params->GetDeviceBlockSize());
  EXPECT_EQ(entry.relocFileSize, 16u);
  EXPECT_EQ(entry.volumeMajor, volume.loop().major());
  EXPECT_EQ(entry.volumeMinor, volume.loop().minor());
  EXPECT_STREQ(entry.volumeName, volume.device().c_str());
  EXPECT_EQ(entry.vtrackRequest, 0u);
  EXPECT_EQ(entry.independentSnapshotRequest, 1u);
  EXPECT_EQ(entry.snapUsageType, 0u);
  EXPECT_EQ(entry.trackingGuid[0], '\0');
  forget(setId);
}

TEST_F(Worker, leaves_the_snapshots_names_with_the_volumes_and_lists_the_set) {
  const Volume other("ext4", 16 << 20);
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  engine.addWithRelocation(other);
  Job job(engine);
  awaitEnd(engine, job);
  const Volume* const volumes[] = {&volume, &other};
  for (unsigned int i = 0; i < 2; ++i) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> params(engine->mSnapshotSetParams->GetAt(i));
    EXPECT_EQ(params->GetSnapVolumeName(), snapDevice(*volumes[i]));
    ASSERT_NE(params->GetRelocationFileName(), nullptr);
    const std::wstring file = params->GetRelocationFileName();
    EXPECT_EQ(file.find(volumes[i]->wfolder() + L"/"), 0u) << std::string(file.begin(), file.end());
  }
  EXPECT_TRUE(isListed(setId));
  EXPECT_EQ(MirelSnapshotEngine::sSnapshotSetParamsArray.GetSnappedVolumeCount(), 2u);
  EXPECT_FALSE(noSetInProgress());
  forget(setId);
}

TEST_F(Worker, a_snapped_volume_is_already_snapped_11) {
  driver.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  EXPECT_EQ(failedJob(), std::make_pair(USC_E_VOLUME_ALREADY_SNAPPED, 11));
}

TEST_F(Worker, the_drivers_refusals_reach_the_agent) {
  const struct {
    int driverStatus, status, snapResult;
  } refusals[] = {{-2, USC_E_VOLUME_ALREADY_SNAPPED, 11},
                  {-3, USC_E_VOLUME_ALREADY_SNAPPED, 12},
                  {-8, E_UNEXPECTED, 26},
                  {-99, E_UNEXPECTED, 6}};
  for (const auto& refusal : refusals) {
    driver.fail(IOC_SNAP, EINVAL, refusal.driverStatus);
    EXPECT_EQ(failedJob(), std::make_pair(refusal.status, refusal.snapResult));
  }
}

TEST_F(Worker, a_relocation_file_that_finds_no_room_is_20_and_unexpected) {
  const Engine engine;
  engine.start();
  const _SSGUIDPLAIN id = engine.addWithRelocation(volume);
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileSize", L"1000000"), S_OK);
  Job job(engine);
  awaitEnd(engine, job);
  EXPECT_EQ(outcome(job), std::make_pair(E_UNEXPECTED, 20));
  EXPECT_TRUE(driver.calls(IOC_SNAP).empty());
}

TEST_F(Worker, a_failed_job_leaves_the_volumes_without_names) {
  driver.fail(IOC_SNAP, EINVAL, -3);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  Job job(engine);
  awaitEnd(engine, job);
  const GetDoneWrapper<MirelSnapshotVolumeParams> params(engine->mSnapshotSetParams->GetAt(0));
  EXPECT_TRUE(params->GetSnapVolumeName().empty());
  EXPECT_EQ(params->GetRelocationFileName(), nullptr);
}

TEST_F(Worker, an_exception_from_the_driver_interface_is_snap_result_3) {
  const ProcFile meminfo("meminfo", "no number here\n");  // the figures' reader throws, and leaves the file open
  const OpenedFiles opened;
  LogCapture system;
  EXPECT_EQ(failedJob(), std::make_pair(E_UNEXPECTED, 3));
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_FROZEN).size(), 1u);
  EXPECT_TRUE(driver.calls(IOC_SNAP).empty());
  EXPECT_FALSE(system.has(LOG_ERR, "Unable to get the System State\n"));  // 3 it is, but not an ordinary failure's
  for (const OpenedFile& file : opened.all()) {
    if (file.path == "/proc/meminfo") std::fclose(file.stream);
  }
}

TEST_F(Worker, snapshots_whose_names_cannot_be_kept_are_taken_back) {
  driver.on(IOC_SNAP, [](std::byte*, std::size_t) {
    static thread_local std::optional<FailingAllocation> shortage;
    shortage.emplace(0);
    return 0;
  });
  EXPECT_EQ(failedJob(), std::make_pair(E_UNEXPECTED, 3));
  ASSERT_EQ(driver.calls(IOC_SNAP_DISCARD).size(), 1u);
  const DriverCall discard = driver.calls(IOC_SNAP_DISCARD)[0];
  EXPECT_EQ(discard.header().requestValue, 1u);
  const auto entry = discard.get<DiscardEntry>(sizeof(_ioctlCmd));
  EXPECT_EQ(entry.majorNum, volume.loop().major());
  EXPECT_EQ(entry.minorNum, volume.loop().minor());
  EXPECT_EQ(entry.flag, 0u);
}

TEST_F(Worker, the_job_outlives_the_agents_last_reference) {
  Gate gate;
  driver.on(IOC_SNAP, [&](std::byte*, std::size_t) {
    gate.pass();
    return 0;
  });
  Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  Job job(engine);
  ASSERT_TRUE(gate.reached());
  job.release();
  engine.release();
  gate.open();
  // The worker drops the last reference, and with it the engine ends its set.
  ASSERT_TRUE(detachedThreadsEnded());
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
  EXPECT_TRUE(noSetInProgress());
  EXPECT_TRUE(isListed(setId));
  forget(setId);
}

TEST_F(Worker, runs_with_the_signal_mask_of_the_thread_that_started_the_job) {
  bool blocked = false;
  driver.on(IOC_SNAP, [&](std::byte*, std::size_t) {
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    blocked = sigismember(&now, SIGUSR1) == 1 && sigismember(&now, SIGUSR2) == 0;
    return 0;
  });
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &mask, &before);
  Job job(engine);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  awaitEnd(engine, job);
  EXPECT_TRUE(blocked);
  forget(setId);
}

TEST_F(Worker, leaves_no_descriptor_to_a_program_that_is_executed_meanwhile) {
  const std::set<int> before = inheritedDescriptors();
  std::set<int> meanwhile;
  int looks = 0;
  const auto look = [&] {
    ++looks;
    meanwhile.merge(inheritedDescriptors());
  };
  // With the control node and the relocation file open, and with the control node alone.
  driver.intercept(FIBMAP, [&](int, void*) {
    look();
    return std::nullopt;
  });
  driver.on(IOC_SNAP, [&](std::byte*, std::size_t) {
    look();
    return 0;
  });
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  Job job(engine);
  awaitEnd(engine, job);
  EXPECT_EQ(outcome(job), std::make_pair(USC_S_ASYNC_FINISHED, 0));
  EXPECT_GE(looks, 2);
  EXPECT_EQ(meanwhile, before);
  forget(setId);
}

TEST_F(Worker, a_name_that_is_missing_leaves_the_volume_as_it_was) {
  const Volume other("ext4", 16 << 20);
  // Another agent's thread adds a volume while the driver snaps the first: it has no request and no name.
  Engine engine;
  Gate gate;
  driver.on(IOC_SNAP, [&](std::byte*, std::size_t) {
    gate.pass();
    return 0;
  });
  const _SSGUIDPLAIN setId = engine.start();
  engine.addWithRelocation(volume);
  Job job(engine);
  ASSERT_TRUE(gate.reached());
  ASSERT_EQ(engine->mSnapshotSetParams->Add({9, 9, 9, {}}, other.wdevice().c_str(), other.wfolder().c_str()), 2u);
  const GetDoneWrapper<MirelSnapshotVolumeParams> late(engine->mSnapshotSetParams->GetAt(1));
  late->GetSnapVolumeName() = L"/dev/before";
  late->SetRelocationFileName(L"/before");
  gate.open();
  awaitEnd(engine, job);
  EXPECT_EQ(late->GetSnapVolumeName(), L"/dev/before");
  ASSERT_NE(late->GetRelocationFileName(), nullptr);
  EXPECT_EQ(late->GetRelocationFileName(), std::wstring(L"/before"));
  forget(setId);
}

TEST_F(Worker, a_relocation_file_whose_name_the_locale_cannot_decode_leaves_the_volumes_as_it_was) {
  const Locale utf8(kUtf8);
  const TempDir dir;
  // The option's name is L"caf\u00E9"; the driver's side narrows it to its low bytes, whatever the locale.
  const std::wstring place = wide(dir.path()) + L"/caf\u00E9";
  std::filesystem::create_directory(dir / "caf\xC3\xA9");
  std::filesystem::create_directory(dir / "caf\xE9");
  const Mounted decodable(volume.device(), dir / "caf\xC3\xA9", "ext4");
  const Mounted undecodable(volume.device(), dir / "caf\xE9", "ext4");
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  const _SSGUIDPLAIN id = engine.add(volume);
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileMountPoint", place.c_str()), S_OK);
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileSize", L"16"), S_OK);
  const GetDoneWrapper<MirelSnapshotVolumeParams> params(engine->mSnapshotSetParams->GetAt(0));
  params->SetRelocationFileName(L"/before");
  Job job(engine);
  awaitEnd(engine, job);
  ASSERT_EQ(outcome(job), std::make_pair(USC_S_ASYNC_FINISHED, 0));
  EXPECT_FALSE(std::filesystem::is_empty(dir / "caf\xE9/.verrelocarea"));
  EXPECT_EQ(params->GetSnapVolumeName(), snapDevice(volume));
  ASSERT_NE(params->GetRelocationFileName(), nullptr);
  EXPECT_EQ(params->GetRelocationFileName(), std::wstring(L"/before"));
  forget(setId);
}

// --- Broken hand-overs

class DoSnapshotRoutine : public JobTest {
 protected:
  void TearDown() override {
    engine.release();
    JobTest::TearDown();
  }
  // Parameters without their reference on the engine.
  Params* params() {
    Params* made = Params::CreateSnapshotThreadParams(engine.face(), &requests);
    engine->Release();
    return made;
  }
  // Whether the parameters have been signalled: their wait would end at once.
  static bool signalled(Params* params) { return params->Wait() == 0; }

  Engine engine;
  Requests requests;
};

TEST_F(DoSnapshotRoutine, without_parameters_ends_with_E_INVALIDARG) {
  log.clear();
  EXPECT_EQ(exitCode(MirelSnapshotEngine::DoSnapshotRoutine(nullptr)), E_INVALIDARG);
  EXPECT_EQ(log.lines(), (Lines{L"DoSnapshotRoutine: ERROR: (Unexpected): ThreadParams is null in thread routine, "
                                L"returning E_INVALIDARG!"}));
}

TEST_F(DoSnapshotRoutine, without_a_job_signals_and_ends_with_E_INVALIDARG) {
  Params* broken = params();
  broken->mAsync = nullptr;
  log.clear();
  EXPECT_EQ(exitCode(MirelSnapshotEngine::DoSnapshotRoutine(broken)), E_INVALIDARG);
  EXPECT_EQ(log.lines(),
            (Lines{L"DoSnapshotRoutine: ERROR: (Unexpected): SnapEngine is null, returning E_INVALIDARG!"}));
  EXPECT_TRUE(signalled(broken));
  broken->Done();
}

TEST_F(DoSnapshotRoutine, without_a_list_signals_and_resets_the_engine) {
  engine.start();
  Params* broken = params();
  broken->mVolumes = nullptr;
  log.clear();
  EXPECT_EQ(exitCode(MirelSnapshotEngine::DoSnapshotRoutine(broken)), E_INVALIDARG);
  EXPECT_EQ(log.lines()[0], L"DoSnapshotRoutine: ERROR: (Unexpected): VolInfoListPtr is null, returning E_INVALIDARG!");
  EXPECT_TRUE(log.has(L"ResetState: Current State is StateSnapshotSetStarted"));
  EXPECT_TRUE(noSetInProgress());
  EXPECT_TRUE(signalled(broken));
  EXPECT_EQ(engine.references(), 1u);  // none dropped
  EXPECT_EQ(engine->mThreadParams, nullptr);
  broken->Done();
}

// Does nothing but answer.
class Answering : public MirelSnapshotEngine {
 public:
  int DoSnapshotOnSeparateThread(void* threadParams) override {
    handedOver = threadParams;
    return 42;
  }
  IAsyncDoSnapshot* face() { return this; }
  void* handedOver = nullptr;
};

TEST_F(DoSnapshotRoutine, takes_the_parameters_over_and_ends_with_what_the_job_answers) {
  auto* const answering = new Answering;
  Params* const whole = Params::CreateSnapshotThreadParams(answering->face(), &requests);
  EXPECT_EQ(exitCode(MirelSnapshotEngine::DoSnapshotRoutine(whole)), 42);
  EXPECT_EQ(answering->handedOver, whole);
  EXPECT_EQ(answering->mThreadParams, whole);
  EXPECT_EQ(answering->mState, StateSnapshotSetInProgress);
  answering->mThreadParams = nullptr;
  whole->Done();
  answering->Release();
  answering->Release();
}

class DoSnapshotOnSeparateThread : public DoSnapshotRoutine {
 protected:
  void expectRefused() {
    log.clear();
    EXPECT_EQ(engine.face()->DoSnapshotOnSeparateThread(nullptr), USC_E_BAD_STATE);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines()[0],
              L"DoSnapshotOnSeparateThread: ERROR: (Unexpected): Invalid Input, returning USC_E_BAD_STATE!");
    EXPECT_EQ(log.lines()[1].find(L"ResetState: Current State is "), 0u);
    EXPECT_EQ(engine.references(), 1u);
    EXPECT_TRUE(driver.calls(IOC_SNAP).empty());
  }
  void TearDown() override {
    if (engine->mThreadParams != nullptr) engine->mThreadParams->Done();
    engine->mThreadParams = nullptr;
    DoSnapshotRoutine::TearDown();
  }
};

TEST_F(DoSnapshotOnSeparateThread, without_parameters_is_a_bad_state) {
  engine->mState = StateSnapshotSetInProgress;
  expectRefused();
  EXPECT_EQ(engine->mState, StateSnapshotSetDone);
}

TEST_F(DoSnapshotOnSeparateThread, parameters_without_a_job_are_a_bad_state) {
  engine->mThreadParams = params();
  engine->mThreadParams->mAsync = nullptr;
  engine->mState = StateSnapshotSetInProgress;
  expectRefused();
  EXPECT_TRUE(signalled(engine->mThreadParams));
}

TEST_F(DoSnapshotOnSeparateThread, parameters_without_a_list_are_a_bad_state) {
  engine->mThreadParams = params();
  engine->mThreadParams->mVolumes = nullptr;
  engine->mState = StateSnapshotSetInProgress;
  expectRefused();
  EXPECT_TRUE(signalled(engine->mThreadParams));
}

TEST_F(DoSnapshotOnSeparateThread, any_other_state_is_a_bad_state) {
  engine->mThreadParams = params();
  engine->mState = StateSnapshotSetUnDone;
  expectRefused();
  EXPECT_TRUE(signalled(engine->mThreadParams));
  EXPECT_EQ(engine->mState, StateSnapshotSetUnDone);
}

TEST_F(DoSnapshotOnSeparateThread, works_on_the_engines_parameters_not_on_its_argument) {
  engine.start();
  engine->mThreadParams = params();
  engine->mState = StateSnapshotSetInProgress;
  engine->AddRef();  // the worker's
  EXPECT_EQ(engine.face()->DoSnapshotOnSeparateThread(nullptr), S_OK);
  EXPECT_EQ(engine.references(), 1u);
  EXPECT_EQ(engine->mSnapResult, 3);  // the driver interface refuses an empty list
  EXPECT_TRUE(log.has(failureText(3)));
  EXPECT_EQ(engine->mState, StateSnapshotSetDone);
}

}  // namespace
}  // namespace test
