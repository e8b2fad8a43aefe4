// SPDX-License-Identifier: Apache-2.0
#include "qxtools/Log.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <utility>

#include "qxtools/Handle.h"
#include "qxtools/Multibyte.h"

namespace {

// A text of any length. While it is short it needs no heap; when the heap gives nothing, the text keeps its beginning.
template <class Char>
class MessageText {
 public:
  MessageText() = default;
  MessageText(const MessageText&) = delete;
  MessageText& operator=(const MessageText&) = delete;

  void append(Char character) noexcept {
    if (mLength + 1 == mRoom && !grow()) return markCut();
    mText[mLength++] = character;
  }
  void append(const Char* text) noexcept {
    for (; *text != 0; ++text) append(*text);
  }
  const Char* finish() noexcept {
    mText[mLength] = 0;
    return mText;
  }

 private:
  bool grow() noexcept {
    const std::size_t room = mRoom * 2;
    std::unique_ptr<Char[], FreeMemory> larger(static_cast<Char*>(std::malloc(room * sizeof(Char))));
    if (larger == nullptr) return false;
    std::copy_n(mText, mLength, larger.get());
    mOnHeap = std::move(larger);
    mText = mOnHeap.get();
    mRoom = room;
    return true;
  }
  void markCut() noexcept { std::fill_n(mText + mLength - 3, 3, Char{'.'}); }

  static constexpr std::size_t kFirstRoom = 512;
  Char mFirst[kFirstRoom];
  std::unique_ptr<Char[], FreeMemory> mOnHeap;
  Char* mText = mFirst;
  std::size_t mRoom = kFirstRoom;
  std::size_t mLength = 0;
};

using WideMessage = MessageText<wchar_t>;
using NarrowMessage = MessageText<char>;

enum class Length { Char, Short, Plain, Long, LongLong, Max, Size, Difference };

// One conversion of a format, "%-3u" say.
struct Directive {
  static constexpr std::size_t kMostFlags = 5;
  wchar_t flags[kMostFlags + 1] = {};
  bool leftAligned = false;
  int width = 0;
  int precision = -1;  // negative: none given
  Length length = Length::Plain;
  wchar_t conversion = 0;
};

// Writes a format and its arguments to a message. The C library's own formatting gives up the whole text on the first
// byte that it cannot decode; this one shows such bytes and goes on.
class Formatter {
 public:
  Formatter(WideMessage& message, std::va_list arguments) noexcept : mMessage(message) {
    va_copy(mArguments, arguments);
  }
  ~Formatter() { va_end(mArguments); }
  Formatter(const Formatter&) = delete;
  Formatter& operator=(const Formatter&) = delete;

  void write(const wchar_t* format) noexcept {
    while (*format != 0) {
      if (*format != L'%') {
        mMessage.append(*format++);
        continue;
      }
      const wchar_t* const start = format++;
      const Directive directive = parse(format);
      if (!convert(directive)) return mMessage.append(start);
    }
  }

 private:
  // Reads one directive and steps behind it.
  Directive parse(const wchar_t*& format) noexcept {
    Directive directive;
    parseFlags(format, directive);
    directive.width = parseNumber(format, 0);
    if (directive.width < 0) {
      directive.leftAligned = true;
      directive.width = directive.width == INT_MIN ? 0 : -directive.width;
    }
    if (*format == L'.') directive.precision = parseNumber(++format, 0);
    directive.length = parseLength(format);
    directive.conversion = *format;
    if (*format != 0) ++format;
    return directive;
  }

  static void parseFlags(const wchar_t*& format, Directive& directive) noexcept {
    for (std::size_t n = 0; *format != 0 && std::wcschr(L"-+ #0", *format) != nullptr; ++format) {
      if (*format == L'-') directive.leftAligned = true;
      if (std::wcschr(directive.flags, *format) == nullptr && n < Directive::kMostFlags) directive.flags[n++] = *format;
    }
  }

  // A decimal number, or an argument for "*".
  int parseNumber(const wchar_t*& format, int otherwise) noexcept {
    if (*format == L'*') {
      ++format;
      return va_arg(mArguments, int);
    }
    if (*format < L'0' || *format > L'9') return otherwise;
    wchar_t* end = nullptr;
    const long number = std::wcstol(format, &end, 10);
    format = end;
    return static_cast<int>(std::min<long>(number, INT_MAX));
  }

  static Length parseLength(const wchar_t*& format) noexcept {
    static constexpr struct {
      const wchar_t* text;
      std::size_t size;
      Length length;
    } kLengths[] = {{L"hh", 2, Length::Char},     {L"h", 1, Length::Short}, {L"ll", 2, Length::LongLong},
                    {L"l", 1, Length::Long},      {L"j", 1, Length::Max},   {L"z", 1, Length::Size},
                    {L"t", 1, Length::Difference}};
    for (const auto& known : kLengths) {
      if (std::wcsncmp(format, known.text, known.size) != 0) continue;
      format += known.size;
      return known.length;
    }
    return Length::Plain;
  }

  // False for a conversion that is not known; nothing is written then.
  bool convert(const Directive& directive) noexcept {
    switch (directive.conversion) {
      case L'%':
        mMessage.append(L'%');
        return true;
      case L'd':
      case L'i':
        writeNumber(directive, takeSigned(directive.length));
        return true;
      case L'u':
      case L'o':
      case L'x':
      case L'X':
        writeNumber(directive, takeUnsigned(directive.length));
        return true;
      case L'c':
        writeCharacter(directive);
        return true;
      case L's':
        writeString(directive);
        return true;
      default:
        return false;
    }
  }

  long long takeSigned(Length length) noexcept {
    switch (length) {
      case Length::Char:
        return static_cast<signed char>(va_arg(mArguments, int));
      case Length::Short:
        return static_cast<short>(va_arg(mArguments, int));
      case Length::Plain:
        return va_arg(mArguments, int);
      default:
        return va_arg(mArguments, long long);  // all others are 64 bits wide here
    }
  }

  unsigned long long takeUnsigned(Length length) noexcept {
    switch (length) {
      case Length::Char:
        return static_cast<unsigned char>(va_arg(mArguments, unsigned int));
      case Length::Short:
        return static_cast<unsigned short>(va_arg(mArguments, unsigned int));
      case Length::Plain:
        return va_arg(mArguments, unsigned int);
      default:
        return va_arg(mArguments, unsigned long long);
    }
  }
  static_assert(sizeof(long) == 8 && sizeof(std::intmax_t) == 8 && sizeof(std::size_t) == 8 &&
                sizeof(std::ptrdiff_t) == 8);

  template <class Number>
  void writeNumber(const Directive& directive, Number number) noexcept {
    static_assert(sizeof(Number) == sizeof(long long));
    wchar_t format[16];
    std::swprintf(format, 16, L"%%%ls*.*ll%lc", directive.flags, static_cast<std::wint_t>(directive.conversion));
    // Nobody reads a number of more digits; the bounds keep the text within its room.
    constexpr int kWidest = 120;
    wchar_t text[kWidest + 8];
    const int width = std::min(directive.width, kWidest);
    std::swprintf(text, kWidest + 8, format, directive.leftAligned ? -width : width,
                  std::min(directive.precision, kWidest), number);
    mMessage.append(text);
  }

  void writeCharacter(const Directive& directive) noexcept {
    const int given = va_arg(mArguments, int);
    if (directive.length == Length::Long) {
      const wchar_t text[] = {static_cast<wchar_t>(given), 0};
      return writeWide(directive, text);
    }
    const char text[] = {static_cast<char>(given), 0};
    writeNarrow(directive, text);
  }

  void writeString(const Directive& directive) noexcept {
    if (directive.length == Length::Long) return writeWide(directive, va_arg(mArguments, const wchar_t*));
    writeNarrow(directive, va_arg(mArguments, const char*));
  }

  static std::size_t most(const Directive& directive) noexcept {
    return directive.precision < 0 ? SIZE_MAX : static_cast<std::size_t>(directive.precision);
  }

  void writeWide(const Directive& directive, const wchar_t* text) noexcept {
    if (text == nullptr) text = L"(null)";
    std::size_t size = 0;
    while (size < most(directive) && text[size] != 0) ++size;
    writePadded(directive, size, [&] { std::for_each_n(text, size, [&](wchar_t c) { mMessage.append(c); }); });
  }

  void writeNarrow(const Directive& directive, const char* text) noexcept {
    if (text == nullptr) text = "(null)";
    std::size_t size = 0;
    decode(text, most(directive), [&](wchar_t) { ++size; });
    writePadded(directive, size, [&] { decode(text, size, [&](wchar_t c) { mMessage.append(c); }); });
  }

  // Calls `take` for each of at most `limit` characters.
  template <class Take>
  static void decode(const char* text, std::size_t limit, Take take) noexcept {
    std::mbstate_t state{};
    std::size_t taken = 0;
    while (taken < limit) {
      const DecodedCharacter next = DecodeCharacter(text, state);
      if (next.bytes == 0) return;
      if (next.decoded) {
        take(next.character);
        ++taken;
      } else {
        wchar_t escape[8];
        std::swprintf(escape, 8, L"\\x%02X", static_cast<unsigned int>(static_cast<unsigned char>(*text)));
        for (const wchar_t* c = escape; *c != 0 && taken < limit; ++c, ++taken) take(*c);
      }
      text += next.bytes;
    }
  }

  template <class Write>
  void writePadded(const Directive& directive, std::size_t size, Write write) noexcept {
    const auto width = static_cast<std::size_t>(directive.width);
    const std::size_t blanks = width > size ? width - size : 0;
    if (!directive.leftAligned) pad(blanks);
    write();
    if (directive.leftAligned) pad(blanks);
  }
  void pad(std::size_t blanks) noexcept {
    while (blanks-- > 0) mMessage.append(L' ');
  }

  WideMessage& mMessage;
  std::va_list mArguments;
};

void SendToSystemLog(unsigned short level, const wchar_t* message) noexcept {
  NarrowMessage narrow;
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
  WideMessage message;
  std::va_list arguments;
  va_start(arguments, format);
  Formatter(message, arguments).write(format);
  va_end(arguments);
  const wchar_t* const text = message.finish();
  if (!SendToHandler(level, text)) SendToSystemLog(level, text);
  errno = saved;
}
