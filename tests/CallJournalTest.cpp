// What goes to the journal, read in place of journald: the program has a /run of its own.
#include <VornSdkRpc/CallJournal.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/FullRecord.h"

namespace {

using VornSdkRpc::CallEnd;
using VornSdkRpc::CallRecord;

constexpr char kFolder[] = "/run/systemd/journal";

// The socket that journald would have.
class Journal {
 public:
  Journal() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
    unlink(static_cast<const char*>(address.sun_path));
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~Journal() { close(fd_); }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // One entry, as it is sent; empty when there is none.
  std::string entry() const {
    std::string bytes(65536, '\0');
    const auto size = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    return bytes.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size));
  }

 private:
  const int fd_;
};

bool hasRunOfItsOwn() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 &&
         std::filesystem::create_directories(kFolder);
}

TEST(CallJournal, SendsEveryFieldAndWaitsForAJournal) {
  if (!hasRunOfItsOwn()) GTEST_SKIP() << "a mount namespace takes CAP_SYS_ADMIN";
  const auto sink = VornSdkRpc::callJournal();
  const CallRecord full = test::fullRecord();
  const CallRecord begun{.run = "r1", .number = 8, .end = CallEnd::begun, .method = "/x/z"};
  const CallRecord* const records[] = {&full, &begun};
  EXPECT_EQ(sink->write(records), 0U);
  EXPECT_FALSE(sink->writeGap({"r1", 1, 6}));
  const Journal journal;
  EXPECT_TRUE(sink->writeGap({"r1", 1, 6}));
  EXPECT_EQ(sink->write(records), 2U);
  EXPECT_EQ(journal.entry(),
            "MESSAGE=6 records of calls are missing here\n"
            "MESSAGE_ID=48c02c68e4174dfc9da507003bf5ec95\nPRIORITY=4\nCALL_RUN=r1\n"
            "CALL_GAP_FIRST=1\nCALL_GAP_COUNT=6\nSYSLOG_IDENTIFIER=CallJournalTest\n");
  EXPECT_EQ(journal.entry(),
            "MESSAGE=/x/\\xe2\\x80\\xa8 of CORP\\al\"ice at unix:: RESOURCE_EXHAUSTED, refused\n"
            "MESSAGE_ID=2317cef469314e32a5fad6c40af333bb\nPRIORITY=4\nCALL_RUN=r1\nCALL_NUMBER=7\n"
            "CALL_END=refused\nCALL_START_US=1764067190123456\nCALL_DURATION_US=1500\n"
            "CALL_DEADLINE_US=1764067191000000\nCALL_STATUS=8\nCALL_CODE=RESOURCE_EXHAUSTED\n"
            "CALL_SENT=0\nCALL_METHOD=/x/\\xe2\\x80\\xa8\nCALL_USER=CORP\\al\"ice\n"
            "CALL_SESSION=\\x0a\\x00\n"
            "CALL_PROOF=tls\nCALL_PEER=unix:\nCALL_TRACEPARENT=00-1\nCALL_REASON=caf\\xe9\\x5cx0a\n"
            "CALL_OPERATION=set\nCALL_OBJECT=é\nCALL_COUNT=5\nCALL_MESSAGES_IN=1\n"
            "CALL_MESSAGES_OUT=2\nCALL_BYTES_IN=3\nCALL_BYTES_OUT=4\n"
            "SYSLOG_IDENTIFIER=CallJournalTest\n");
  EXPECT_THAT(journal.entry(), testing::StartsWith("MESSAGE=/x/z of : begun\n"));
  const std::pair<CallRecord, char> priorities[] = {{{.status = 5}, '6'},
                                                    {{.status = 13}, '3'},
                                                    {{.end = CallEnd::denied, .status = 7}, '4'},
                                                    {{.end = CallEnd::abandoned, .status = 1}, '5'},
                                                    {{.end = CallEnd::stopped, .status = 14}, '5'}};
  for (const auto& [record, priority] : priorities) {
    const CallRecord* const one[] = {&record};
    EXPECT_EQ(sink->write(one), 1U);
    EXPECT_THAT(journal.entry(), testing::HasSubstr(std::string("\nPRIORITY=") + priority + "\n"));
  }
}

}  // namespace
