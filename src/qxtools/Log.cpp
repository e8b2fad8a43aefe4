// SPDX-License-Identifier: Apache-2.0
//
// Where the engine's messages go.
#include "qxtools/Log.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cwchar>

#include "qxtools/MessageFormat.h"
#include "qxtools/MessageText.h"

namespace {

void SendToSystemLog(unsigned short level, const wchar_t* message) noexcept {
  MessageText<char> narrow;
  std::mbstate_t state{};
  for (; *message != 0; ++message) {
    char bytes[MB_LEN_MAX];
    const std::size_t size = std::wcrtomb(bytes, *message, &state);
    if (size <= sizeof bytes) {
      std::for_each_n(bytes, size, [&](char byte) { narrow.append(byte); });
      continue;
    }
    state = std::mbstate_t{};
    char escape[16];
    const auto code = static_cast<unsigned int>(*message);
    std::snprintf(escape, sizeof escape, code > 0xFFFF ? "\\U%08X" : "\\u%04X", code);
    narrow.append(escape);
  }
  syslog(level == 0 ? LOG_ERR : LOG_INFO, "%s", narrow.finish());
}

using Handler = void(unsigned short level, const wchar_t* message, void* context);

// Held for reading while a handler runs (a handler may log itself), for writing while it is exchanged. It has no
// destructor: a worker may still log while the process ends.
pthread_rwlock_t sHandlerLock = PTHREAD_RWLOCK_INITIALIZER;
Handler* sHandler = nullptr;
void* sContext = nullptr;

// False when there is no handler, or it threw.
bool SendToHandler(unsigned short level, const wchar_t* message) noexcept {
  bool sent = false;
  pthread_rwlock_rdlock(&sHandlerLock);
  try {
    if (sHandler != nullptr) {
      sHandler(level, message, sContext);
      sent = true;
    }
  } catch (...) {
    // The agent's trouble; the message still goes to the system log.
  }
  pthread_rwlock_unlock(&sHandlerLock);
  return sent;
}

}  // namespace

void QX_SetLogHandler(void (*handler)(unsigned short level, const wchar_t* message, void* context), void* context) {
  pthread_rwlock_wrlock(&sHandlerLock);
  sHandler = handler;
  sContext = context;
  pthread_rwlock_unlock(&sHandlerLock);
}

void QX_Zprintf(unsigned short level, const wchar_t* format, ...) noexcept {
  const int saved = errno;
  MessageText<wchar_t> message;
  std::va_list arguments;
  va_start(arguments, format);
  FormatMessage(message, format, arguments);
  va_end(arguments);
  const wchar_t* const text = message.finish();
  if (!SendToHandler(level, text)) SendToSystemLog(level, text);
  errno = saved;
}
