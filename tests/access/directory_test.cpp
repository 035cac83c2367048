// An unsafe directory of a user's pipes: neither server nor client uses it, and nothing in it
// changes.
#include <filesystem>

#include "tests/access/access_test.h"

namespace tolk::test {
namespace {

namespace fs = std::filesystem;

struct Case {
  const char* name;
  const char* error;  // of a server's start
  // Puts something where `directory` of `user` should be; `elsewhere` is a directory of other's.
  void (*make)(const std::string& directory, uid_t user, uid_t other, const std::string& elsewhere);

  friend void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }
};

class UnsafeDirectory : public AccessTest, public testing::WithParamInterface<Case> {
 public:
  using AccessTest::make_directory;
  using AccessTest::make_file;
  using AccessTest::make_link;

 protected:
  // A directory of the other user, with a live server of the same name that accepts everybody.
  void SetUp() override {
    AccessTest::SetUp();
    make_directory(elsewhere, other.id(), 0755);
    squatter = std::make_unique<Actor>(
        other.id(), [&](Talk& talk) { be_raw_server(talk, elsewhere + "/echo.sock." + name); });
    ASSERT_EQ(squatter->hear(), "listens");
    GetParam().make(directory, user.id(), other.id(), elsewhere);
    before = everything(directory);
    before_elsewhere = everything(elsewhere);
  }
  void TearDown() override {
    EXPECT_EQ(everything(directory), before);
    EXPECT_EQ(everything(elsewhere), before_elsewhere);
  }

  const std::string elsewhere = other.temporary();
  std::unique_ptr<Actor> squatter;
  std::vector<std::string> before;
  std::vector<std::string> before_elsewhere;
};

using Hands = UnsafeDirectory;
constexpr Case kCases[] = {
    {"AnothersAndClosed", "EACCES",
     [](const std::string& directory, uid_t, uid_t other, const std::string&) {
       Hands::make_directory(directory, other, 0700);
     }},
    {"AnothersAndOpen", "EACCES",
     [](const std::string& directory, uid_t, uid_t other, const std::string&) {
       Hands::make_directory(directory, other, 0777);
     }},
    {"RootsAndOpen", "EACCES",
     [](const std::string& directory, uid_t, uid_t, const std::string&) {
       Hands::make_directory(directory, 0, 0777);
     }},
    {"AnothersMovedThereWithItsLiveServer", "EACCES",
     [](const std::string& directory, uid_t, uid_t other, const std::string& elsewhere) {
       fs::rename(elsewhere, directory);
       Hands::make_directory(elsewhere, other, 0755);
     }},
    {"OpenToAll", "EACCES",
     [](const std::string& directory, uid_t user, uid_t, const std::string&) {
       Hands::make_directory(directory, user, 0777);
     }},
    {"OpenToTheGroup", "EACCES",
     [](const std::string& directory, uid_t user, uid_t, const std::string&) {
       Hands::make_directory(directory, user, 0710);
     }},
    {"AnothersLinkToAnothersDirectory", "ENOTDIR",
     [](const std::string& directory, uid_t, uid_t other, const std::string& elsewhere) {
       Hands::make_link(elsewhere, directory, other);
     }},
    {"AnothersLinkToAnOwnDirectory", "ENOTDIR",
     [](const std::string& directory, uid_t user, uid_t other, const std::string& elsewhere) {
       Hands::make_directory(elsewhere + "/own", user, 0700);
       Hands::make_link(elsewhere + "/own", directory, other);
     }},
    {"LinkToNothing", "ENOTDIR",
     [](const std::string& directory, uid_t, uid_t other, const std::string& elsewhere) {
       Hands::make_link(elsewhere + "/nothing", directory, other);
     }},
    {"AnothersPlainFile", "ENOTDIR",
     [](const std::string& directory, uid_t, uid_t other, const std::string&) {
       Hands::make_file(directory, other, 0666);
     }},
    {"OwnPlainFile", "ENOTDIR",
     [](const std::string& directory, uid_t user, uid_t, const std::string&) {
       Hands::make_file(directory, user);
     }},
};

TEST_P(UnsafeDirectory, ServerIsRefused) {
  const auto server = server_of(user.id());
  EXPECT_EQ(server->hear(), "failed");
  EXPECT_TRUE(server->prints(std::string("Bind error: ") + GetParam().error + "\n"))
      << server->printed();
}

TEST_P(UnsafeDirectory, ClientIsRefused) {
  const auto client = client_of(user.id());
  EXPECT_EQ(client->hear(), "failed");
  EXPECT_TRUE(client->prints("cant connect: " + name + " \n")) << client->printed();
}

INSTANTIATE_TEST_SUITE_P(, UnsafeDirectory, testing::ValuesIn(kCases),
                         [](const auto& one) { return one.param.name; });

// The system's directory for a user's run-time files is skipped when anything is wrong with it.
class RuntimeDirectory : public AccessTest {
 protected:
  void expect_passed_over() const {
    const auto before = everything(user.runtime());
    expect_recovered();
    EXPECT_EQ(everything(user.runtime()), before);
  }
};

TEST_F(RuntimeDirectory, OfTheUserIsUsed) {
  make_directory(user.runtime(), user.id(), 0700);
  expect_recovered();
  EXPECT_FALSE(fs::exists(directory));
}

TEST_F(RuntimeDirectory, OfAnotherUserIsSkipped) {
  make_directory(user.runtime(), other.id(), 0700);
  expect_passed_over();
}

TEST_F(RuntimeDirectory, AccessibleToAllIsSkipped) {
  make_directory(user.runtime(), user.id(), 0777);
  expect_passed_over();
}

TEST_F(RuntimeDirectory, LinkIsSkipped) {
  make_directory(user.runtime() + "-elsewhere", user.id(), 0700);
  make_link(user.runtime() + "-elsewhere", user.runtime(), other.id());
  expect_passed_over();
  fs::remove_all(user.runtime() + "-elsewhere");
}

TEST_F(RuntimeDirectory, PlainFileIsSkipped) {
  fs::create_directories("/run/user");
  make_file(user.runtime(), other.id());
  expect_passed_over();
}

}  // namespace
}  // namespace tolk::test
