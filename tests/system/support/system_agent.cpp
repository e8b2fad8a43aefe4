// SPDX-License-Identifier: Apache-2.0
//
// A backup agent: loads the shipped library by its path, knows nothing of it but the header that agents include, and
// calls its engines as a test orders.
#include <dlfcn.h>
#include <mirelsnap/SnapshotEngine.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Channel.h"
#include "Steps.h"
#include "Waiting.h"

namespace {

using test::Json;
using UnixSnapshotCoordinator::IUscAsync;
using UnixSnapshotCoordinator::IUscSnapshotEngine;

// ---- text

std::string narrow(const wchar_t* text) {
  if (text == nullptr) return "";
  std::mbstate_t state{};
  std::string result(std::wcslen(text) * MB_CUR_MAX + 1, '\0');
  const std::size_t length = std::wcsrtombs(result.data(), &text, result.size(), &state);
  if (length == static_cast<std::size_t>(-1)) return "(undecodable)";
  result.resize(length);
  return result;
}

std::wstring decoded(const std::string& text) {
  const char* from = text.c_str();
  std::mbstate_t state{};
  std::wstring result(text.size() + 1, L'\0');
  const std::size_t length = std::mbsrtowcs(result.data(), &from, result.size(), &state);
  result.resize(length == static_cast<std::size_t>(-1) ? 0 : length);
  return result;
}

// A null in the order is a null pointer in the call.
class WideArgument {
 public:
  WideArgument(const Json& order, const char* name) {
    if (order.contains(name) && order[name].is_string()) mText = decoded(order[name]);
  }
  const wchar_t* get() const { return mText ? mText->c_str() : nullptr; }

 private:
  std::optional<std::wstring> mText;
};

std::string textOf(const _SSGUIDPLAIN& id) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&id);
  std::string text;
  for (std::size_t i = 0; i < sizeof id; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text;
}

_SSGUIDPLAIN idOf(const std::string& text) {
  _SSGUIDPLAIN id{};
  auto* bytes = reinterpret_cast<unsigned char*>(&id);
  for (std::size_t i = 0; i < sizeof id && 2 * i + 1 < text.size(); ++i) {
    bytes[i] = static_cast<unsigned char>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
  }
  return id;
}

// ---- the library

struct Library {
  void* handle = nullptr;
  UscGetCreatorFunction* getCreator = nullptr;
  decltype(UnixSnapshotCoordinator::UscFreeSnapshotProperties)* freeProperties = nullptr;
  decltype(QX_SetLogHandler)* setLogHandler = nullptr;
} library;

template <class Function>
bool find(void* handle, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(handle, name));
  return function != nullptr;
}

bool loadLibrary(const char* path) {
  void* const handle = library.handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  return handle != nullptr && find(handle, "GetCreatorFunction", library.getCreator) &&
         find(handle, "QX_SetLogHandler", library.setLogHandler) &&
         find(handle, "_ZN23UnixSnapshotCoordinator25UscFreeSnapshotPropertiesEPNS_18_USC_SNAPSHOT_PROPE",
              library.freeProperties);
}

std::mutex messagesMutex;
std::vector<std::string> messages;

void keepMessage(unsigned short, const wchar_t* message, void*) {
  const std::lock_guard lock(messagesMutex);
  messages.push_back(narrow(message));
}

// ---- engines

struct Engine {
  IUscSnapshotEngine* face = nullptr;
  IUscAsync* job = nullptr;
  std::future<int> waiting;
};
std::deque<Engine> engines;

Engine& engineOf(const Json& order) { return engines.at(order["engine"].get<std::size_t>()); }

Json result(int code) { return {{"result", code}}; }
Json result(int code, const char* name, Json value) { return {{"result", code}, {name, std::move(value)}}; }

Json create(const Json&) {
  engines.push_back({(*library.getCreator())(), nullptr, {}});
  return {{"engine", engines.size() - 1}};
}

// The worker of a job lets go of its own reference only after it has said that the job is done.
void waitForWorkerOf(const Engine& engine) {
  if (engine.job == nullptr || engine.job->Wait(0) == USC_S_ASYNC_PENDING) return;
  static_cast<void>(test::comesTrue([&] {
    engine.face->AddRef();
    return engine.face->Release() == 2;  // the agent's: the face and the job
  }));
}

Json release(const Json& order) {
  Engine& engine = engineOf(order);
  waitForWorkerOf(engine);
  if (engine.job != nullptr) engine.job->Release();
  return {{"count", engine.face->Release()}};
}

Json version(const Json& order) {
  const wchar_t* text = nullptr;
  const int code = engineOf(order).face->GetVersionString(&text);
  return result(code, "version", narrow(text));
}

Json supportsSnapshots(const Json& order) {
  int supported = -1;
  const int code = engineOf(order).face->SupportsSnapshots(&supported);
  return result(code, "supported", supported);
}

Json startSet(const Json& order) {
  _SSGUIDPLAIN id{};
  const int code = engineOf(order).face->StartSnapshotSet(&id);
  return result(code, "set", textOf(id));
}

Json waitForNewSet(const Json& order) { return result(engineOf(order).face->WaitForNewSnapshotSet(order["ms"])); }

Json beginWaitForNewSet(const Json& order) {
  Engine& engine = engineOf(order);
  engine.waiting = std::async(std::launch::async, [face = engine.face, ms = order["ms"].get<unsigned int>()] {
    return face->WaitForNewSnapshotSet(ms);
  });
  return Json::object();
}

Json endWaitForNewSet(const Json& order) { return result(engineOf(order).waiting.get()); }

Json add(const Json& order) {
  _SSGUIDPLAIN id{};
  const int code = engineOf(order).face->AddToSnapshotSet(WideArgument(order, "volume").get(),
                                                          WideArgument(order, "mount_point").get(), &id);
  return result(code, "snapshot", textOf(id));
}

Json addAlternate(const Json& order) {
  return result(engineOf(order).face->AddToAlternateMountSet(WideArgument(order, "mount_point").get()));
}

Json setOption(const Json& order) {
  return result(engineOf(order).face->SetOption(idOf(order["snapshot"]), WideArgument(order, "key").get(),
                                                WideArgument(order, "value").get()));
}

Json startJob(const Json& order) {
  Engine& engine = engineOf(order);
  return result(engine.face->DoSnapshotSet(&engine.job));
}

Json waitForJob(const Json& order) { return result(engineOf(order).job->Wait(order["ms"])); }

Json queryJob(const Json& order) {
  int status = 0x7777;
  int snapResult = 0x7777;
  const int code = engineOf(order).job->QueryStatus(&status, &snapResult);
  return {{"result", code}, {"status", status}, {"snap_result", snapResult}};
}

Json properties(const Json& order) {
  UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP record{};
  const int code = engineOf(order).face->GetSnapshotProperties(idOf(order["snapshot"]), &record);
  Json answer = result(code);
  if (code < 0) return answer;
  answer["snapshot"] = textOf(record.SnapshotId);
  answer["set"] = textOf(record.SnapshotSetId);
  answer["count"] = record.SnapshotsCount;
  answer["device"] = narrow(record.SnapshotDeviceName);
  answer["volume"] = narrow(record.OriginalVolumeName);
  answer["relocation_file"] = narrow(record.RelocationFileName);
  answer["mount_points"] = Json::array();
  for (int i = 0; i < record.MountPointCount; ++i) answer["mount_points"].push_back(narrow(record.MountPoints[i]));
  library.freeProperties(&record);
  return answer;
}

Json expose(const Json& order) {
  return result(engineOf(order).face->ExposeSnapshotsInSnapshotSet(WideArgument(order, "base").get()));
}

Json isExposed(const Json& order) {
  int exposed = -1;
  const int code = engineOf(order).face->IsSnapshotExposed(idOf(order["snapshot"]), &exposed);
  return result(code, "exposed", exposed);
}

Json unexpose(const Json& order) { return result(engineOf(order).face->UnExposeSnapshotsInSnapshotSet()); }

Json deleteSet(const Json& order) {
  return result(
      engineOf(order).face->DeleteSnapshots(idOf(order["set"]), UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT_SET));
}

Json reconcile(const Json& order) {
  return result(engineOf(order).face->DoReconcile(WideArgument(order, "base").get()));
}

// ---- the process

// Nothing of the library may be called any more.
Json unloadLibrary(const Json&) { return result(dlclose(library.handle)); }

Json countSteps(const Json& order) {
  steps::count(order["last"]);
  return Json::object();
}

Json takenSteps(const Json&) { return steps::taken(); }

Json takeMessages(const Json&) {
  const std::lock_guard lock(messagesMutex);
  return std::exchange(messages, {});
}

// The most memory that the process ever had, in KiB.
Json peakMemory(const Json&) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return {{"kib", std::stol(line.substr(6))}};
  }
  return Json::object();
}

using Operation = std::function<Json(const Json&)>;
const std::map<std::string, Operation> operations = {
    {"create", create},
    {"release", release},
    {"version", version},
    {"supports_snapshots", supportsSnapshots},
    {"start_set", startSet},
    {"wait_for_new_set", waitForNewSet},
    {"begin_wait_for_new_set", beginWaitForNewSet},
    {"end_wait_for_new_set", endWaitForNewSet},
    {"add", add},
    {"add_alternate", addAlternate},
    {"set_option", setOption},
    {"start_job", startJob},
    {"wait_for_job", waitForJob},
    {"query_job", queryJob},
    {"properties", properties},
    {"expose", expose},
    {"is_exposed", isExposed},
    {"unexpose", unexpose},
    {"delete_set", deleteSet},
    {"reconcile", reconcile},
    {"unload", unloadLibrary},
    {"count_steps", countSteps},
    {"taken_steps", takenSteps},
    {"messages", takeMessages},
    {"peak_memory", peakMemory},
};

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  if (argc != 2 || !loadLibrary(argv[1])) {
    std::fprintf(stderr, "cannot load the library: %s\n", dlerror());
    return 1;
  }
  library.setLogHandler(&keepMessage, nullptr);
  test::serve(test::Channel(test::kChannelDescriptor),
              [](const Json& order, const std::vector<int>&) { return operations.at(order["operation"])(order); });
  library.setLogHandler(nullptr, nullptr);
}
