// SPDX-License-Identifier: Apache-2.0
#include "OtherThread.h"
#include "qxtools/Log.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cwchar>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "EngineLog.h"
#include "Locale.h"
#include "LogCapture.h"
#include "interpose/FailingMalloc.h"

namespace {

// What the handler is given for one format.
template <class... Arguments>
std::wstring formatted(const wchar_t* format, Arguments... arguments) {
  test::EngineLog log;
  QX_Zprintf(0, format, arguments...);
  const std::vector<std::wstring> lines = log.lines();
  return lines.size() == 1 ? lines[0] : L"<not one line>";
}

// What the C library makes of it.
template <class... Arguments>
std::wstring expected(const wchar_t* format, Arguments... arguments) {
  wchar_t text[512];
  return swprintf(text, 512, format, arguments...) < 0 ? L"<not formatted>" : text;
}

template <class... Arguments>
void expectAsTheCLibrary(const wchar_t* format, Arguments... arguments) {
  EXPECT_EQ(formatted(format, arguments...), expected(format, arguments...)) << testing::PrintToString(format);
}

struct Taken {
  unsigned short level = 99;
  std::wstring message;
};
void take(unsigned short level, const wchar_t* message, void* context) {
  *static_cast<Taken*>(context) = {level, message};
}

}  // namespace

TEST(QX_Zprintf, level_0_reaches_the_system_log_as_an_error_when_no_handler_is_set) {
  test::LogCapture log;
  QX_Zprintf(0, L"%hs: ERROR: NULL cwstrVolumeName, returning E_INVALIDARG", "AddToSnapshotSet");
  const std::string text = "AddToSnapshotSet: ERROR: NULL cwstrVolumeName, returning E_INVALIDARG";
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.has(LOG_ERR, text)) << log.dump();
}

TEST(QX_Zprintf, every_other_level_reaches_the_system_log_as_information) {
  test::LogCapture log;
  QX_Zprintf(1, L"one");
  QX_Zprintf(USHRT_MAX, L"most");
  EXPECT_EQ(log.texts(LOG_INFO), (std::vector<std::string>{"one", "most"}));
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST(QX_Zprintf, leaves_the_system_logs_identity_as_it_was_opened) {
  test::LogCapture log;
  openlog("SOMEBODY", LOG_PID, LOG_USER);
  QX_Zprintf(0, L"text");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].ident, "SOMEBODY[" + std::to_string(getpid()) + "]");
}

TEST(QX_Zprintf, a_percent_sign_in_a_name_is_text_for_the_system_log) {
  test::LogCapture log;
  QX_Zprintf(0, L"%ls", L"/mnt/100%s%n");
  EXPECT_TRUE(log.has(LOG_ERR, "/mnt/100%s%n")) << log.dump();
}

TEST(QX_Zprintf, hands_level_text_and_context_to_the_handler_and_nothing_to_the_system_log) {
  test::LogCapture log;
  Taken taken;
  QX_SetLogHandler(&take, &taken);
  QX_Zprintf(7, L"%hs: %ls", "DoMount", L"/mnt/a");
  QX_SetLogHandler(nullptr, nullptr);
  EXPECT_EQ(taken.level, 7);
  EXPECT_EQ(taken.message, L"DoMount: /mnt/a");
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(QX_Zprintf, formats_strings_as_the_c_library_does) {
  expectAsTheCLibrary(L"plain text, no directive");
  expectAsTheCLibrary(L"");
  expectAsTheCLibrary(L"%hs: %s: %ls.", "narrow", "narrow too", L"wide");
  expectAsTheCLibrary(L"[%8hs] [%-8hs] [%8ls] [%-8ls]", "ab", "ab", L"ab", L"ab");
  expectAsTheCLibrary(L"[%.2hs] [%.2ls] [%.0hs] [%5.1ls] [%.9hs] [%.hs]", "abc", L"abc", "abc", L"abc", "abc", "abc");
  expectAsTheCLibrary(L"[%*hs] [%-*.*ls]", 5, "ab", 6, 1, L"ab");
  expectAsTheCLibrary(L"[%*d]", -6, 42);
  expectAsTheCLibrary(L"%c%hc%lc%%", 'a', 'b', static_cast<wint_t>(L'c'));
  expectAsTheCLibrary(L"[%hs] [%ls]", "", L"");
}

TEST(QX_Zprintf, formats_whole_numbers_as_the_c_library_does) {
  expectAsTheCLibrary(L"%d %i %u %x %X %o", -1, INT_MIN, UINT_MAX, 0xBEEFu, 0xBEEFu, 8u);
  expectAsTheCLibrary(L"%s: %-3u: '%s'", "DismountAndDeleteDirectory", 7u, "/mnt");
  expectAsTheCLibrary(L"[%5d] [%-5d] [%05d] [%+d] [% d] [%#x] [%.4u] [%8.3d]", 42, 42, 42, 42, 42, 42u, 42u, 42);
  expectAsTheCLibrary(L"%hhd %hhu %hd %hu", 0x1FF, 0x1FFu, 0x1FFFF, 0x1FFFFu);
  expectAsTheCLibrary(L"%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
  expectAsTheCLibrary(L"%jd %ju %zu %zd %td", INTMAX_MIN, UINTMAX_MAX, SIZE_MAX, ssize_t{-1}, ptrdiff_t{-1});
  expectAsTheCLibrary(L"%lx|%#lo|%-+6ld|%0#10x", ULONG_MAX, 8ul, 3l, 255u);
}

TEST(QX_Zprintf, a_null_string_is_shown_as_such) {
  EXPECT_EQ(formatted(L"[%hs] [%s] [%ls]", nullptr, nullptr, nullptr), L"[(null)] [(null)] [(null)]");
}

TEST(QX_Zprintf, an_unknown_conversion_is_shown_with_the_rest_as_it_stands) {
  EXPECT_EQ(formatted(L"%d then %q and %d", 1), L"1 then %q and %d");
  EXPECT_EQ(formatted(L"ends in %"), L"ends in %");
  EXPECT_EQ(formatted(L"ends in %-5l"), L"ends in %-5l");
}

TEST(QX_Zprintf, bytes_that_the_locale_cannot_decode_are_shown_and_the_rest_stays_whole) {
  for (const char* name : {test::kPlain, test::kUtf8}) {
    const test::Locale locale(name);
    EXPECT_EQ(formatted(L"%hs: mount( \"%hs\" ) FAILED! Error: #%d", "DoMount", "/mnt/caf\xE9/\xFFx", 22),
              L"DoMount: mount( \"/mnt/caf\\xE9/\\xFFx\" ) FAILED! Error: #22")
        << name;
  }
}

TEST(QX_Zprintf, bytes_that_the_locale_can_decode_are_characters) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(formatted(L"%hs|%4s|%.1hs", "caf\xC3\xA9", "\xC3\xA9", "\xC3\xA9\xE9"), L"caf\u00E9|   \u00E9|\u00E9");
}

TEST(QX_Zprintf, a_character_that_breaks_off_is_shown_byte_for_byte) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(formatted(L"%hs!", "a\xE2\x82"), L"a\\xE2\\x82!");
}

TEST(QX_Zprintf, width_and_precision_count_the_characters_that_are_shown) {
  EXPECT_EQ(formatted(L"[%6hs] [%-6hs] [%.3hs]", "\xE9", "\xE9", "\xE9"), L"[  \\xE9] [\\xE9  ] [\\xE]");
}

TEST(QX_Zprintf, characters_that_the_locale_cannot_encode_are_shown_in_the_system_log) {
  const test::Locale plain(test::kPlain);
  test::LogCapture log;
  QX_Zprintf(0, L"%ls %hs end", L"/mnt/caf\u00E9 \u20AC \U0001F600", "\xE9");
  EXPECT_TRUE(log.has(LOG_ERR, "/mnt/caf\\u00E9 \\u20AC \\U0001F600 \\xE9 end")) << log.dump();
}

TEST(QX_Zprintf, characters_that_the_locale_can_encode_reach_the_system_log_as_they_are) {
  const test::Locale utf8(test::kUtf8);
  test::LogCapture log;
  QX_Zprintf(0, L"%ls %hs", L"caf\u00E9", "\xE2\x82\xAC");
  EXPECT_TRUE(log.has(LOG_ERR, "caf\xC3\xA9 \xE2\x82\xAC")) << log.dump();
}

TEST(QX_Zprintf, long_messages_are_not_cut) {
  const std::string name(100'000, 'x');
  EXPECT_EQ(formatted(L"<%hs>", name.c_str()), L"<" + std::wstring(100'000, L'x') + L">");
  test::LogCapture log;
  const std::string shorter(20'000, 'y');
  QX_Zprintf(0, L"<%hs>", shorter.c_str());
  EXPECT_TRUE(log.has(LOG_ERR, "<" + shorter + ">"));
}

TEST(QX_Zprintf, a_message_of_every_length_around_the_first_room_is_whole) {
  for (std::size_t length = 500; length < 530; ++length) {
    const std::wstring name(length, L'x');
    EXPECT_EQ(formatted(L"%ls", name.c_str()), name);
  }
}

TEST(QX_Zprintf, a_message_that_memory_is_too_short_for_keeps_its_beginning_and_says_so) {
  struct Fixed {  // needs no memory itself
    wchar_t message[1024];
    static void take(unsigned short, const wchar_t* message, void* self) {
      std::wcsncpy(static_cast<Fixed*>(self)->message, message, 1023);
    }
  };
  Fixed taken{};
  const std::string name(1000, 'x');
  QX_SetLogHandler(&Fixed::take, &taken);
  {
    const test::FailingMalloc failing;
    QX_Zprintf(0, L"DoMount: %hs", name.c_str());
    EXPECT_TRUE(failing.failed());
  }
  QX_SetLogHandler(nullptr, nullptr);
  EXPECT_EQ(std::wstring(taken.message), L"DoMount: " + std::wstring(511 - 9 - 3, L'x') + L"...");
}

TEST(QX_Zprintf, a_short_message_needs_no_memory) {
  test::LogCapture log;
  bool failed;
  {
    const test::FailingMalloc failing;
    QX_Zprintf(0, L"%hs: CreateSnapshotSetParams failed", "StartSnapshotSet");
    failed = failing.failed();
  }
  EXPECT_FALSE(failed);
  EXPECT_TRUE(log.has(LOG_ERR, "StartSnapshotSet: CreateSnapshotSetParams failed"));
}

TEST(QX_Zprintf, keeps_errno) {
  test::LogCapture log;
  errno = ENOTBLK;
  QX_Zprintf(0, L"%hs %ls", "\xE9", L"\u20AC");
  EXPECT_EQ(errno, ENOTBLK);
}

TEST(QX_Zprintf, a_handler_may_log_itself) {
  struct Recursive {
    static void take(unsigned short level, const wchar_t* message, void* context) {
      static_cast<std::vector<std::wstring>*>(context)->push_back(message);
      if (level > 0) QX_Zprintf(static_cast<unsigned short>(level - 1), L"level %u", level - 1u);
    }
  };
  std::vector<std::wstring> messages;
  QX_SetLogHandler(&Recursive::take, &messages);
  QX_Zprintf(2, L"level 2");
  QX_SetLogHandler(nullptr, nullptr);
  EXPECT_EQ(messages, (std::vector<std::wstring>{L"level 2", L"level 1", L"level 0"}));
}

TEST(QX_Zprintf, a_message_whose_handler_throws_goes_to_the_system_log) {
  test::LogCapture log;
  QX_SetLogHandler([](unsigned short, const wchar_t*, void*) { throw std::runtime_error("agent"); }, nullptr);
  QX_Zprintf(0, L"not lost");
  QX_SetLogHandler(nullptr, nullptr);
  EXPECT_TRUE(log.has(LOG_ERR, "not lost"));
}

TEST(QX_SetLogHandler, null_gives_the_system_log_back) {
  test::LogCapture log;
  Taken taken;
  QX_SetLogHandler(&take, &taken);
  QX_SetLogHandler(nullptr, &taken);
  QX_Zprintf(0, L"back");
  EXPECT_TRUE(taken.message.empty());
  EXPECT_TRUE(log.has(LOG_ERR, "back"));
}

TEST(QX_SetLogHandler, returns_only_when_the_old_handler_has_stopped_running) {
  struct Slow {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool mayLeave = false;
    std::atomic<bool> left{false};

    static void take(unsigned short, const wchar_t*, void* context) {
      auto* self = static_cast<Slow*>(context);
      std::unique_lock<std::mutex> hold(self->mutex);
      self->entered = true;
      self->changed.notify_all();
      self->changed.wait(hold, [&] { return self->mayLeave; });
      self->left = true;
    }
  };
  Slow slow;
  QX_SetLogHandler(&Slow::take, &slow);
  std::thread logger([] { QX_Zprintf(0, L"slow"); });
  {
    std::unique_lock<std::mutex> hold(slow.mutex);
    slow.changed.wait(hold, [&] { return slow.entered; });
  }
  bool leftBefore = false;
  test::OtherThread exchanger([&] {
    QX_SetLogHandler(nullptr, nullptr);
    leftBefore = slow.left;
  });
  EXPECT_TRUE(exchanger.comesToWait());
  {
    const std::lock_guard<std::mutex> hold(slow.mutex);
    slow.mayLeave = true;
  }
  slow.changed.notify_all();
  exchanger.join();
  logger.join();
  EXPECT_TRUE(leftBefore);
}

TEST(QX_SetLogHandler, every_message_reaches_exactly_one_handler_while_handlers_are_exchanged) {
  struct Counter {
    static void take(unsigned short, const wchar_t*, void* context) { ++*static_cast<std::atomic<int>*>(context); }
  };
  constexpr int kThreads = 4;
  constexpr int kMessages = 500;
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  QX_SetLogHandler(&Counter::take, &first);
  std::vector<std::thread> loggers;
  for (int t = 0; t < kThreads; ++t) {
    loggers.emplace_back([] {
      for (int i = 0; i < kMessages; ++i) QX_Zprintf(0, L"%d", i);
    });
  }
  for (int i = 0; i < 100; ++i) QX_SetLogHandler(&Counter::take, i % 2 == 0 ? &second : &first);
  for (std::thread& logger : loggers) logger.join();
  QX_SetLogHandler(nullptr, nullptr);
  EXPECT_EQ(first + second, kThreads * kMessages);
}
