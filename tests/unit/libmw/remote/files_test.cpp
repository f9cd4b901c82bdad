#include "local/filemessage.h"
#include "local/socketfolder.h"
#include "socket_folder.h"

#include <libmw/local.h>
#include <libmw/session.h>

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

mw::File newFile() { return mw::File(::memfd_create("test", MFD_CLOEXEC)); }

ino_t idOf(const mw::File& file) {
  struct stat status {};
  return ::fstat(file.number(), &status) == 0 ? status.st_ino : 0;
}

class Files : public testing::Test {
 protected:
  mw::File atSocket() { return mw::local::connectTo(folder_.path() + "/korvo/files.file", SOCK_SEQPACKET); }

  const kit::SocketFolder folder_;
  mw::Session brokersSession_;
  std::optional<mw::LocalServer> server_{std::in_place, brokersSession_, "files"};
  mw::Session session_;
  const mw::LocalClient client_{session_, "files"};
};

TEST_F(Files, GoEitherWayAndOnce) {
  const mw::File file = newFile();
  struct Way {
    mw::Session& from;
    mw::Session& to;
  };
  for (const Way& way : {Way{brokersSession_, session_}, Way{session_, brokersSession_}, Way{session_, session_},
                         Way{brokersSession_, brokersSession_}}) {
    const mw::Ticket ticket = way.from.offerFile(file);
    const mw::File fetched = way.to.fetchFile(ticket);
    EXPECT_EQ(idOf(fetched), idOf(file));
    EXPECT_NE(::fcntl(fetched.number(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_THROW(way.to.fetchFile(ticket), std::runtime_error);
  }
  EXPECT_THROW(session_.fetchFile({}), std::runtime_error);
}

TEST_F(Files, AreNotLeftWithoutLimit) {
  const mw::File file = newFile();
  mw::File socket;
  std::vector<mw::Ticket> left;
  while (left.size() < 1000) {
    try {
      // By the socket, since in this process the desk is the broker's own.
      left.push_back(session_.offerFile(file));
    } catch (const std::runtime_error&) {
      break;
    }
  }
  EXPECT_LT(left.size(), 1000U);
  for (const mw::Ticket& ticket : left) EXPECT_EQ(idOf(session_.fetchFile(ticket)), idOf(file));
  EXPECT_EQ(idOf(session_.fetchFile(session_.offerFile(file))), idOf(file));
}

TEST_F(Files, AreServedWhateverStrangersSayAndWhenTheySayNothing) {
  const mw::File file = newFile();
  std::vector<mw::File> silent;
  for (int i = 0; i < 100; ++i) silent.push_back(atSocket());
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{17}, std::size_t{5000}}) {
    const mw::File socket = atSocket();
    mw::local::send(socket, std::vector<std::byte>(size), &file);
    const auto answer = mw::local::receive(socket);
    EXPECT_LE(answer.size, 0);
    EXPECT_FALSE(answer.file);
  }
  EXPECT_EQ(idOf(session_.fetchFile(brokersSession_.offerFile(file))), idOf(file));
}

TEST_F(Files, LeaveNothingBehindWhenTheBrokerEnds) {
  server_.reset();
  EXPECT_FALSE(atSocket());
  EXPECT_FALSE(std::filesystem::exists(folder_.path() + "/korvo/files.file"));
  EXPECT_THROW(session_.offerFile(newFile()), std::runtime_error);
}

}  // namespace
