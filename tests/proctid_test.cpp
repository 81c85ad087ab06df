#include "log/proctid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A directory that looks like /proc/<pid>, with a task directory of given entries.
class Proctid : public testing::Test {
 protected:
  explicit Proctid() { test_root::MakeEmptyDir("/fake/task/"); }

  bool ListFake(std::set<int>* out) {
    const int fd = open(test_root::Path("/fake").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool listed = GetProcessTidsFromProcPidFd(fd, out);
    const int saved = errno;
    close(fd);
    errno = saved;
    return listed;
  }
  void AddEntry(const std::string& name) {
    mkdir(test_root::Path("/fake/task/" + name).c_str(), 0700);
  }

  LogCapture log_;
};

TEST_F(Proctid, ListsTheThreadsOfThisProcess) {
  std::atomic<int> tid{0};
  std::atomic<bool> stop{false};
  std::thread other([&] {
    tid = gettid();
    while (!stop) usleep(1000);
  });
  while (tid == 0) usleep(1000);
  std::set<int> tids = {999999999};
  EXPECT_TRUE(GetProcessTids(getpid(), &tids));
  EXPECT_THAT(tids, testing::IsSupersetOf({getpid(), tid.load()}));
  EXPECT_EQ(tids.count(999999999), 0u);
  ASSERT_TRUE(QuorvelListOtherThreads(tid, &tids));
  EXPECT_EQ(tids.count(gettid()), 0u);
  EXPECT_EQ(tids.count(tid), 0u);
  stop = true;
  other.join();
}

TEST_F(Proctid, AnEmptyTaskDirectoryIsAnEmptySet) {
  std::set<int> tids = {1};
  EXPECT_TRUE(ListFake(&tids));
  EXPECT_THAT(tids, IsEmpty());
}

TEST_F(Proctid, NamesThatAreNumbersInSomeForm) {
  for (const char* name : {"42", " 43", "0x1f", "0X2", "2147483647", "007", "0x7"}) AddEntry(name);
  std::set<int> tids;
  EXPECT_TRUE(ListFake(&tids));
  EXPECT_THAT(tids, ElementsAre(2, 7, 31, 42, 43, 2147483647));
}

TEST_F(Proctid, NamesThatAreNotThreadIds) {
  const struct {
    const char* name;
    int error;
  } cases[] = {{"0", ERANGE}, {"-1", ERANGE}, {"2147483648", ERANGE},           {"12abc", EINVAL},
               {"x", EINVAL}, {"0x", EINVAL}, {"99999999999999999999", ERANGE}, {"4 2", EINVAL}};
  for (const auto& c : cases) {
    test_root::MakeEmptyDir("/fake/task/");
    AddEntry(c.name);
    log_.Clear();
    std::set<int> tids;
    errno = 0;
    EXPECT_FALSE(ListFake(&tids)) << c.name;
    EXPECT_EQ(errno, c.error) << c.name;
    ASSERT_EQ(log_.Lines().size(), 1u);
    EXPECT_EQ(log_.Lines()[0].text, std::string("failed to parse task id: ") + c.name);
    EXPECT_EQ(log_.Lines()[0].file, "proctid.h");
  }
}

TEST_F(Proctid, AProcessOrTaskDirectoryThatIsNotThere) {
  std::set<int> tids = {7};
  EXPECT_FALSE(GetProcessTids(-5, &tids));
  EXPECT_EQ(log_.Lines().back().text, "failed to open /proc/-5: No such file or directory");
  EXPECT_THAT(tids, ElementsAre(7));
  test_root::RemoveTree("/fake/task");
  EXPECT_FALSE(ListFake(&tids));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log_.Lines().back().text, "failed to open task directory: No such file or directory");
  EXPECT_THAT(tids, IsEmpty());
}

TEST_F(Proctid, NoDescriptorIsLeftOpen) {
  const auto open_count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = open_count();
  std::set<int> tids;
  AddEntry("bad");
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(GetProcessTids(getpid(), &tids));
    EXPECT_FALSE(ListFake(&tids));
    EXPECT_FALSE(GetProcessTids(-1, &tids));
  }
  EXPECT_EQ(open_count(), before);
}

template <typename Collection, typename = void>
struct Accepts : std::false_type {};
template <typename Collection>
struct Accepts<Collection, decltype(void(GetProcessTids(0, static_cast<Collection*>(nullptr))))>
    : std::true_type {};

static_assert(Accepts<std::set<int>>::value && Accepts<std::vector<int64_t>>::value,
              "elements of the width of a thread id and wider");
static_assert(!Accepts<std::set<int16_t>>::value && !Accepts<std::vector<char>>::value,
              "narrower elements would cut thread ids");

}  // namespace
