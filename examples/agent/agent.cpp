// SPDX-License-Identifier: Apache-2.0
//
// A complete backup agent: takes snapshots of volumes at one instant, runs a command on them, cleans up.
//
//     agent DEVICE MOUNTPOINT [DEVICE MOUNTPOINT]... BASE COMMAND
//     agent /dev/sdb1 /srv /run/agent 'tar -C /run/agent --exclude=.verrelocarea -cf /backup/srv.tar .'
//
// BASE must be this agent's alone: anything mounted below it at the start is taken for a leftover and unmounted.
#include <mirelsnap/SnapshotEngine.h>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <new>
#include <set>
#include <system_error>
#include <vector>

using namespace UnixSnapshotCoordinator;
using Path = std::filesystem::path;

struct Volume {
  Path device, mountPoint;
};

volatile std::sig_atomic_t stopped = 0;

bool ok(int result, const char* failure, const Path& where, const char* hint) {
  if (result >= 0) return true;
  std::fprintf(stderr, "agent: %s %s: 0x%08X; %s\n", failure, where.c_str(), static_cast<unsigned int>(result), hint);
  return false;
}

bool fill(IUscSnapshotEngine* engine, const std::vector<Volume>& volumes) {
  _SSGUIDPLAIN id{};
  for (const Volume& volume : volumes) {
    const int result =
        engine->AddToSnapshotSet(volume.device.wstring().c_str(), volume.mountPoint.wstring().c_str(), &id);
    if (!ok(result, "cannot add", volume.device, "is it a block device, and mounted there?")) return false;
  }
  return true;
}

bool takeSnapshots(IUscSnapshotEngine* engine) {
  IUscAsync* job = nullptr;
  if (!ok(engine->DoSnapshotSet(&job), "cannot start", "the job", "see the system log")) return false;
  int status = USC_S_ASYNC_PENDING, snapResult = -1;
  while (job->QueryStatus(&status, &snapResult) == S_OK && status == USC_S_ASYNC_PENDING) job->Wait(1000);
  job->Release();
  if (snapResult != 0)
    std::fprintf(stderr, "agent: no snapshots: 0x%08X, snap result %d; see the system log\n",
                 static_cast<unsigned int>(status), snapResult);
  return snapResult == 0;
}

bool run(const char* command) {
  const int status = stopped ? 0 : std::system(command);
  if (status != 0)
    std::fprintf(stderr, "agent: the command failed: wait status 0x%04X\n", static_cast<unsigned int>(status));
  if (stopped) std::fprintf(stderr, "agent: stopped by a signal\n");
  return status == 0 && !stopped;
}

bool backUp(IUscSnapshotEngine* engine, const std::vector<Volume>& volumes, const Path& base, const char* command) {
  std::error_code error;
  std::set<Path> folders = {base};
  for (const Volume& volume : volumes) {  // the engine creates the base, but no directory in it
    const Path target = base / volume.mountPoint.relative_path();
    create_directories(target, error);  // without it the exposure fails
    for (Path folder = target; folder != base; folder = folder.parent_path()) folders.insert(folder);
  }
  bool done = ok(engine->ExposeSnapshotsInSnapshotSet(base.wstring().c_str()), "cannot mount below", base,
                 "see the system log") &&
              run(command);
  engine->UnExposeSnapshotsInSnapshotSet();  // cannot remove the base yet: it contains the directories created above
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
    if (remove(*folder, error); !error) continue;
    std::fprintf(stderr, "agent: %s cannot be removed: %s\n", folder->c_str(), error.message().c_str());
    done = false;
  }
  return done;
}

int main(int argc, char** argv) try {
  std::setlocale(LC_ALL, "");
  for (int signal : {SIGHUP, SIGINT, SIGTERM}) std::signal(signal, [](int) { stopped = 1; });
  // As the mount table spells it: absolute, without symbolic links, without a trailing "/".
  Path base = argc >= 5 && argc % 2 == 1 ? weakly_canonical(std::filesystem::absolute(argv[argc - 2])) : Path();
  if (!base.has_filename()) base = base.parent_path();
  if (base == base.root_path()) {  // what is mounted below "/" is not this agent's
    std::fprintf(stderr, "usage: agent DEVICE MOUNTPOINT [DEVICE MOUNTPOINT]... BASE COMMAND\n");
    return 2;
  }
  std::vector<Volume> volumes;
  for (int i = 1; i < argc - 2; i += 2) volumes.push_back({argv[i], argv[i + 1]});

  IUscSnapshotEngine* engine = (*GetCreatorFunction())();
  if (engine == nullptr) throw std::bad_alloc();
  _SSGUIDPLAIN set{};
  const bool taken =
      ok(engine->DoReconcile(base.wstring().c_str()), "cannot clean up", base, "is the driver loaded?") &&
      ok(engine->StartSnapshotSet(&set), "cannot start", "the set", "see the system log") && fill(engine, volumes) &&
      takeSnapshots(engine);
  bool done = taken && backUp(engine, volumes, base, argv[argc - 1]);
  if (taken && !ok(engine->DeleteSnapshots(set, USC_OBJECT_SNAPSHOT_SET), "cannot delete", "the set", "reconcile"))
    done = false;
  engine->Release();
  return done ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "agent: %s\n", error.what());
  return 1;
}
