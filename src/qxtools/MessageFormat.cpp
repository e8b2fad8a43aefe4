// SPDX-License-Identifier: Apache-2.0
#include "qxtools/MessageFormat.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>

#include "qxtools/Multibyte.h"

namespace {

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

// Writes a format and its arguments to a message.
class Formatter {
 public:
  Formatter(MessageText<wchar_t>& message, std::va_list arguments) noexcept : mMessage(message) {
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
    directive.width = parseNumber(format);
    if (directive.width < 0) {
      directive.leftAligned = true;
      directive.width = directive.width == INT_MIN ? 0 : -directive.width;
    }
    if (*format == L'.') directive.precision = parseNumber(++format);
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

  // A decimal number (0 when there is none), or an argument for "*".
  int parseNumber(const wchar_t*& format) noexcept {
    if (*format == L'*') {
      ++format;
      return va_arg(mArguments, int);
    }
    if (*format < L'0' || *format > L'9') return 0;
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

  MessageText<wchar_t>& mMessage;
  std::va_list mArguments;
};

}  // namespace

void FormatMessage(MessageText<wchar_t>& message, const wchar_t* format, std::va_list arguments) noexcept {
  Formatter(message, arguments).write(format);
}
