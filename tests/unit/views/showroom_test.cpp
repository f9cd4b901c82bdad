#include "showroom.h"

#include <hxview/cell.h>

#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::ThrowsMessage;

class FakeHost : public view::Host {
 public:
  void showBy(const std::string& key, std::shared_ptr<const view::Shown> shown) override {
    if (isBroken) throw std::bad_alloc();
    if (shown) {
      shown->introduce(HXValue(1), 0);
      shown_[key] = std::move(shown);
    } else {
      shown_.erase(key);
    }
  }
  std::size_t count() const { return shown_.size(); }
  const view::Shown* shown(const std::string& key) const { return shown_.at(key).get(); }
  bool isBroken = false;

 private:
  std::map<std::string, std::shared_ptr<const view::Shown>> shown_;
};

class Rooms : public testing::Test {
 protected:
  Showroom::Lease open(const std::string& key, std::size_t capacity = 0, std::size_t depth = 0) {
    return room_.open({key, capacity, depth, 100ms}, "viewer");
  }
  std::int64_t bytes() const { return room_.report()["bytes"].toInt64(); }

  const std::shared_ptr<FakeHost> host_ = std::make_shared<FakeHost>();
  Showroom room_{[this] { return host_; }, {.bytes = 1U << 20U, .ringBytes = 1U << 19U}};
};

TEST_F(Rooms, ShareWhatIsEnoughAndMakeAnotherWhereItIsNot) {
  const auto first = open("Key", 100, 10);
  EXPECT_EQ(open("Key", 100, 10).owner, first.owner);
  EXPECT_EQ(open("Key", 8).owner, first.owner);
  const auto deeper = open("Key", 100, 11);
  EXPECT_NE(deeper.owner, first.owner);
  EXPECT_NE(open("Key", 300).owner, first.owner);
  EXPECT_EQ(host_->shown("Key")->parts().rings.size(), 3U);
  const auto cell = open("Key");
  EXPECT_EQ(open("Key").owner, cell.owner);
  EXPECT_NE(open("Other").owner, cell.owner);
}

TEST_F(Rooms, GiveACellToAnotherKeyOnlyWhenNobodyHasIt) {
  const auto first = open("A");
  const auto second = open("A");
  room_.close(first.number);
  EXPECT_NE(open("B").offset, first.offset);
  auto* const cell = reinterpret_cast<view::Cell*>(first.segment->data() + first.offset);
  EXPECT_EQ(cell->owner, first.owner);
  room_.close(second.number);
  EXPECT_EQ(cell->owner, 0U);
  const auto third = open("C");
  EXPECT_EQ(third.offset, first.offset);
  EXPECT_GT(third.owner, first.owner);
  EXPECT_EQ(cell->owner, third.owner);
  EXPECT_EQ(host_->count(), 2U);
}

TEST_F(Rooms, LetGoOfTheMemoryOfARingWithItsLastUser) {
  const auto before = bytes();
  std::uint64_t number = 0;
  {
    const auto lease = open("Key", 100'000);
    number = lease.number;
    EXPECT_GT(bytes(), before + 300'000);
  }
  room_.close(number);
  EXPECT_EQ(bytes(), before);
  EXPECT_EQ(host_->count(), 0U);
}

TEST_F(Rooms, RefuseWhatExceedsALimitAndNameIt) {
  const auto refusal = [&](std::size_t capacity, std::size_t depth, const char* why) {
    EXPECT_THAT([&] { open("Key", capacity, depth); }, ThrowsMessage<std::runtime_error>(HasSubstr(why)));
  };
  refusal(1U << 19U, 0, "a view may have, 524288 bytes");
  refusal(8, 1U << 19U, "a view may have, 524288 bytes");
  refusal(SIZE_MAX / 2, SIZE_MAX / 2, "a view may have");
  const auto number = open("Number");
  const auto large = open("Large", 140'000);
  refusal(150'000, 0, "the largest are Large (");
  EXPECT_EQ(host_->count(), 2U);
  Showroom small([this] { return host_; }, {.viewsOfAViewer = 2});
  const view::Wish another{"Number", 0, 0, 100ms};
  small.open(another, "viewer");
  small.open(another, "viewer");
  EXPECT_THAT([&] { small.open(another, "viewer"); },
              ThrowsMessage<std::runtime_error>(HasSubstr("viewer has 2 views")));
  small.open(another, "another");
}

TEST_F(Rooms, AreAsBeforeWhenTheMemoryCannotShowAKey) {
  const auto before = bytes();
  host_->isBroken = true;
  EXPECT_THROW(open("Key"), std::bad_alloc);
  EXPECT_THROW(open("Key", 100), std::bad_alloc);
  host_->isBroken = false;
  EXPECT_EQ(room_.report()["views"].getSize(), 0U);
  const auto lease = open("Key", 100);
  EXPECT_EQ(room_.report()["views"].getSize(), 1U);
  EXPECT_GE(bytes(), before);
}

TEST_F(Rooms, TellThoseWhoViewThatItEnds) {
  const auto lease = open("Key");
  EXPECT_EQ(lease.segment->head().ended, 0U);
  EXPECT_NE(lease.segment->head().beat, 0U);
  room_.end();
  EXPECT_EQ(lease.segment->head().ended, 1U);
  EXPECT_EQ(host_->count(), 0U);
  EXPECT_THROW(open("Key"), std::runtime_error);
}

}  // namespace
}  // namespace HX
