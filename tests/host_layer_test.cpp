// What stands in for the device's services: properties, the event journal, the trace, paths, time.

#include <cutils/trace.h>
#include <device_path.h>
#include <kelvane.h>
#include <sys/system_properties.h>

#include <filesystem>

#include "support/library_test.h"
#include "support/surroundings.h"

namespace {

using test_root::SetProperty;

class HostLayer : public LibraryTest {
 protected:
  HostLayer() { test_root::MakeEmptyDir(kStore); }

  static std::string Get(const char* name) {
    char value[PROP_VALUE_MAX] = "unchanged";
    const int length = __system_property_get(name, value);
    EXPECT_EQ(strlen(value), static_cast<size_t>(length));
    return value;
  }
  static constexpr char kStore[] = "/dev/__properties__/";
};

TEST_F(HostLayer, APropertyIsReadAsItWasSetUpToItsGreatestLength) {
  const std::string longest(91, 'x');
  EXPECT_EQ(__system_property_set("a.name", longest.c_str()), 0);
  EXPECT_EQ(Get("a.name"), longest);
  EXPECT_EQ(__system_property_set("a.name", (longest + "x").c_str()), -1);
  EXPECT_EQ(Get("a.name"), longest);
  EXPECT_EQ(__system_property_set("a.name", nullptr), 0);
  EXPECT_EQ(Get("a.name"), "");
  EXPECT_EQ(test_root::List(kStore), Texts{"a.name"});
}

TEST_F(HostLayer, APathBesideTheRootIsNotUnderIt) {
  const std::string root = std::filesystem::canonical(test_root::Path("/"));
  EXPECT_EQ(PathOnDevice(root + "/bin/app"), "/bin/app");
  EXPECT_EQ(PathOnDevice(root + "2/bin/app"), root + "2/bin/app");
}

TEST_F(HostLayer, APropertysNameCannotLeadOutOfTheStore) {
  SetProperty("victim", "kept");
  test_root::MakeEmptyDir("/dev/__properties__/dir");
  for (const char* name : {"", "/", "dir/../victim", "../__properties__/victim"}) {
    EXPECT_EQ(__system_property_set(name, "overwritten"), -1) << name;
    EXPECT_EQ(Get(name), "") << name;
  }
  EXPECT_EQ(__system_property_set(nullptr, "overwritten"), -1);
  EXPECT_EQ(test_root::PropertyText("victim"), "kept");
}

TEST_F(HostLayer, AReadOnlyPropertyIsSetOnlyOnce) {
  EXPECT_EQ(__system_property_set("ro.name", "first"), 0);
  EXPECT_EQ(test_root::List(kStore), Texts{"ro.name"});
  EXPECT_EQ(__system_property_set("ro.name", "second"), -1);
  EXPECT_EQ(Get("ro.name"), "first");
  EXPECT_EQ(test_root::List(kStore), Texts{"ro.name"});
}

TEST_F(HostLayer, OneNewlineAtTheEndOfAPropertysFileIsNotOfItsValue) {
  SetProperty("a.name", "1\n");
  EXPECT_EQ(Get("a.name"), "1");
  SetProperty("a.name", "1\n\n");
  EXPECT_EQ(Get("a.name"), "1\n");
  SetProperty("a.name", "\n");
  EXPECT_EQ(Get("a.name"), "");
  EXPECT_EQ(Get("unset"), "");
}

TEST_F(HostLayer, AStoreThatIsMissingIsReportedOnce) {
  test_root::RemoveTree(kStore);
  RunInChild([this] {
    EXPECT_EQ(__system_property_set("a.name", "1"), -1);
    __system_property_set("b.name", "1");
    EXPECT_THAT(log_.Lines("W/properties: cannot set a.name: No such file or directory; "),
                testing::SizeIs(1));
    EXPECT_THAT(log_.Lines(), testing::SizeIs(1));
  });
}

TEST_F(HostLayer, AnEventIsOneLineOfTheJournalWhateverItsTextsHold) {
  fakes.time = [] { return time_t{1763315480}; };
  EXPECT_EQ(dravik_send_event(12, "\"quoted\\\n\x01\x7f", "\xc3\xa9 \xf0\x9f\x98\x80"), 0);
  EXPECT_EQ(dravik_send_event(7, "", "\xff\xed\xa0\x80\xc3"), 0);
  const std::string pid = "\"pid\":" + std::to_string(getpid()) + ",\"time\":1763315480";
  EXPECT_EQ(Journal(),
            "{\"id\":12," + pid +
                ",\"command\":\"\\\"quoted\\\\\\u000a\\u0001\\u007f\",\"message\":"
                "\"\xc3\xa9 \xf0\x9f\x98\x80\"}\n{\"id\":7," +
                pid + ",\"command\":\"\",\"message\":\"\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\"}\n");
}

TEST_F(HostLayer, AStackThatTheKernelKeepsToItselfIsReplacedByTheThreadsState) {
  RunInChild([] {
    char text[4096];
    pthread_setname_np(pthread_self(), "odd) Z (name");
    EXPECT_TRUE(getuid() != 0 || setuid(65534) == 0);
    EXPECT_EQ(DravikGetStack(gettid(), text), 0);
    EXPECT_THAT(text, testing::MatchesRegex(".no kernel stack: .*. state R, .*\n"));
    EXPECT_NE(DravikGetStack(INT_MAX, text), 0);
  });
}

TEST_F(HostLayer, ATraceThatNobodySetUpIsNotMade) {
  SetProperty("debug.atrace.tags.enableflags", "0x800");
  unlink(trace_.c_str());
  atrace_begin(ATRACE_TAG_HAL, "section");
  EXPECT_EQ(test_root::List("/sys/kernel/tracing/"), Texts{});
  test_root::WriteFile(trace_, "");
  atrace_begin(ATRACE_TAG_HAL << 1, "of another tag");
  atrace_end(ATRACE_TAG_HAL << 1);
  EXPECT_EQ(test_root::ReadFile(trace_), "");
}

// Runs itself.
TEST_F(HostLayer, ARootThatNoTestMadeIsNotUsed) {
  SKIP_UNDER_EMULATION("the kernel alone cannot run it");
  test_root::MakeEmptyDir("/of_the_user");
  const std::string command = "QUORVEL_HOST_ROOT=" + test_root::Path("/of_the_user") + " /proc/" +
                              std::to_string(getpid()) + "/exe --gtest_filter='*.AReadOnly*' >&2";
  EXPECT_EQ(system(command.c_str()), 0);
  EXPECT_EQ(test_root::List("/of_the_user"), Texts{});
}

TEST_F(HostLayer, AForkedChildHasTheCalendarOfTheCLibraryAndNoTimeBeyondIt) {
  const time_t now = time(nullptr), beyond = 253402300800;
  const long offset = localtime(&now)->tm_gmtoff;
  constexpr time_t kBegin = -62135510400, kEnd = 253402214400;  // a day within years 1 to 9999
  constexpr time_t kStep = 3155701;  // a prime, so that all days of a year come
  RunInChild([&] {
    char ours[64], theirs[64];
    for (time_t at = kBegin; at < kEnd; at += kStep) {
      const time_t shifted = at + offset;
      ASSERT_STREQ(ctime_r(&at, ours), asctime_r(gmtime(&shifted), theirs)) << at;
    }
    EXPECT_EQ(ctime_r(&beyond, ours), nullptr);
  });
}

}  // namespace
