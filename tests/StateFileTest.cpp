#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agents/routing/StateFile.h"

namespace routing_agent {
namespace {

using testing::HasSubstr;

ip_route_msg route(std::uint32_t number, const std::string& group) {
  ip_route_msg message;
  message.mutable_prefix()->set_addr({10, static_cast<char>(number >> 16),
                                      static_cast<char>(number >> 8), static_cast<char>(number)});
  message.mutable_prefix()->set_mask_length(32);
  message.set_nexthop_group(group);
  return message;
}

nexthop_group_msg group(const std::string& name, bool deletes) {
  nexthop_group_msg message;
  message.set_name(name);
  message.set_request_delete(deletes);
  return message;
}

// Everything that the tables hold, in one text.
std::string textOf(const Tables& tables) {
  std::string text;
  const auto add = [&](const auto&, const auto& message) {
    text += message.ShortDebugString() + "\n";
  };
  tables.routes.forEach(add);
  tables.groups.forEach(add);
  tables.mplsRoutes.forEach(add);
  tables.redirects.forEach(add);
  tables.sessions.forEach(add);
  tables.state.forEach(
      [&](const auto& key, const auto& value) { text += key + "=" + value + "\n"; });
  return text;
}

class StateFileTest : public testing::Test {
 protected:
  StateFileTest() {
    folder_ = (std::filesystem::temp_directory_path() / "state-XXXXXX").string();
    if (!mkdtemp(folder_.data())) throw std::runtime_error("no folder");
    path_ = folder_ + "/state";
  }
  ~StateFileTest() override { std::filesystem::remove_all(folder_); }

  std::string bytes() const {
    std::ifstream in(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void write(const std::string& bytes) const {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << bytes;
  }

  // What a new agent finds in the file; or why it does not take it, with the file left as it was.
  std::string found() const {
    const std::string before = bytes();
    try {
      Tables tables;
      const StateFile file(path_, tables);
      return textOf(tables);
    } catch (const StateFile::Error& error) {
      EXPECT_EQ(bytes(), before);
      return error.what();
    }
  }

  // Writes a record of each kind, and answers what the file holds after each: its size and its
  // text.
  std::vector<std::pair<std::size_t, std::string>> fill() const {
    Tables tables;
    StateFile file(path_, tables);
    std::vector<std::pair<std::size_t, std::string>> held{{file.size(), ""}};
    const auto keep = [&](StateFile::Kind kind, const auto& message) {
      file.keep(kind, message);
      held.emplace_back(file.size(), "");
    };
    mpls_route_msg label;
    label.set_label(16);
    label.set_pop_and_forward_vrf_name("red");
    sbfd_echo_session_msg session;
    session.mutable_session_key()->set_outgoing_interface("eth0");
    session.mutable_session_key()->mutable_nexthop()->set_addr("abcd");
    cbf_nexthop_group_redirect_msg redirect;
    redirect.set_match_nexthop_group("core");
    redirect.set_redirect_nexthop_group("edge");
    rpc_server_state_config_msg config;
    config.add_set()->set_key("key");
    keep(StateFile::kGroup, group("core", false));
    keep(StateFile::kRoute, route(1, "core"));
    keep(StateFile::kRoute, route(1, "edge"));
    keep(StateFile::kMplsRoute, label);
    keep(StateFile::kSession, session);
    keep(StateFile::kRedirect, redirect);
    keep(StateFile::kState, config);
    keep(StateFile::kRouteRemoved, route(1, "").prefix());
    keep(StateFile::kGroup, group("core", true));
    return held;
  }

  std::string folder_, path_;
};

TEST_F(StateFileTest, HoldsEveryRecordThatIsWholeWhereverItIsCut) {
  auto held = fill();
  const std::string whole = bytes();
  for (auto& [size, text] : held) {
    write(whole.substr(0, size));
    text = found();
  }
  EXPECT_THAT(held[3].second, HasSubstr("nexthop_group: \"edge\""));
  EXPECT_THAT(held[7].second,
              testing::AllOf(HasSubstr("red"), HasSubstr("eth0"), HasSubstr("key=")));
  EXPECT_THAT(held[9].second,
              testing::Not(testing::AnyOf(HasSubstr("prefix"), HasSubstr("\nname: "))));
  ASSERT_EQ(held.back().first, whole.size());

  auto last = held.begin();
  for (std::size_t size = 1; size <= whole.size(); ++size) {
    write(whole.substr(0, size));
    if (size < held.front().first) {
      EXPECT_THAT(found(), HasSubstr("it is no state file"));
      continue;
    }
    while (last + 1 != held.end() && (last + 1)->first <= size)
      ++last;
    EXPECT_EQ(found(), last->second) << size;
    {
      Tables tables;
      StateFile(path_, tables).keep(StateFile::kRoute, route(7, "more"));
    }
    EXPECT_THAT(found(), HasSubstr("more")) << size;
  }
}

TEST_F(StateFileTest, RefusesWhatItDoesNotKnowAndLeavesItAlone) {
  fill();
  const std::string whole = bytes();
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string damaged = whole;
    damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
    write(damaged);
    EXPECT_THAT(found(), testing::StartsWith("state file " + path_ + ": it is ")) << i;
  }
  for (const auto& [content, why] : std::vector<std::pair<std::string, std::string>>{
           {"10.0.0.0/8 core 0\n", "it is no state file"},
           {whole.substr(0, 12) + std::string("\2\0\0\0", 4) + whole.substr(16), "version 2"},
           {whole + whole.substr(0, 16),
            "it is damaged at byte " + std::to_string(whole.size())}}) {
    write(content);
    EXPECT_THAT(found(), HasSubstr(why));
  }
  write(whole);
  {
    Tables tables;
    const StateFile used(path_, tables);
    EXPECT_THAT(found(), HasSubstr("another agent uses it"));
  }
}

TEST_F(StateFileTest, AChangeThatHasNoRoomIsNotTakenAndThoseBehindItAre) {
  Tables tables;
  StateFile file(path_, tables);
  file.keep(StateFile::kRoute, route(1, "first"));
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit tight{file.size() + 20, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &tight);
  EXPECT_THROW(file.keep(StateFile::kRoute, route(2, "second")), StateFile::Error);
  setrlimit(RLIMIT_FSIZE, &before);
  file.keep(StateFile::kRoute, route(3, "third"));
  Tables read;
  std::filesystem::copy_file(path_, path_ + "2");
  const StateFile copy(path_ + "2", read);
  EXPECT_EQ(read.routes.size(), 2U);
  EXPECT_THAT(textOf(read), testing::AllOf(HasSubstr("first"), HasSubstr("third")));
}

// As the services do it, with changes that come while the file is written.
TEST_F(StateFileTest, IsWrittenAnewWhileItGoesOn) {
  Tables tables;
  auto file = std::make_unique<StateFile>(path_, tables);
  std::size_t largest = 0;
  bool shrunk = false;
  for (std::uint32_t change = 0; change < 400000; ++change) {
    const auto one = route(change % 500, "group-" + std::to_string(change % 977));
    file->add(StateFile::kRoute, one);
    tables.routes.set(PrefixKey(one.prefix()), one);
    if (change % 7 == 0) {
      const auto gone = route(change % 499, "").prefix();
      file->add(StateFile::kRouteRemoved, gone);
      tables.routes.remove(PrefixKey(gone));
    }
    if (!file->isFull() && !file->wantsRewrite()) continue;
    file->flush();
    shrunk = shrunk || file->size() < largest;
    largest = std::max(largest, file->size());
    if (!file->wantsRewrite()) continue;
    file->markRewrite();
    file->rewrite();
  }
  EXPECT_TRUE(shrunk);
  file->flush();
  file.reset();
  EXPECT_EQ(found(), textOf(tables));
  EXPECT_FALSE(std::filesystem::exists(path_ + ".new"));
}

}  // namespace
}  // namespace routing_agent
