#include "import.h"

#include "base/output.h"
#include "console/linesource.h"
#include "inputvalues.h"
#include "keyrecord.h"

#include <hxcommon/hxproxy.h>
#include <libmw/batch.h>

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostLines = 256;
/// Far below what a broker lets wait.
constexpr std::size_t kMostBytes = std::size_t{8} << 20;
constexpr auto kProgressPeriod = 200ms;

}  // namespace

Import::Import(const HX::HXMemoryProxy& memory, Output& output, std::string source, bool keepsGoing)
    : memory_(memory.proxy()->asObject()),
      output_(output),
      source_(std::move(source)),
      keepsGoing_(keepsGoing),
      nextProgress_(std::chrono::steady_clock::now() + kProgressPeriod) {}

Import::~Import() {
  for (const Sent& sent : sent_) {
    for (const auto& answer : sent.answers) answer.wait();
  }
  output_.status("");
}

void Import::run(LineSource& lines) {
  const mw::Batch batch;
  while (addNext(lines)) showProgress();
  awaitDownTo(0);
  if (failed_ > 0) throw std::runtime_error(fmt::format("{}: {} lines were not imported", source_, failed_));
}

bool Import::addNext(LineSource& lines) {
  ++line_;
  bool isRaise = false;
  try {
    const auto line = lines.next();
    if (!line) return false;
    isRaise = !isBlank(*line) && send(*line);
  } catch (const std::exception& error) {
    awaitDownTo(0);  // A bad line above it comes first.
    fail(line_, error.what());
  }
  awaitDownTo(isRaise ? 0 : kMostLines);
  return true;
}

bool Import::send(std::string_view line) {
  const KeyRecord record = toRecord(line);
  sent_.push_back({line_, line.size(), store(memory_.get(), record)});
  bytes_ += line.size();
  lastSent_ = line_;
  return record.kind != "Data";
}

void Import::awaitDownTo(std::size_t lines) {
  while (sent_.size() > lines || bytes_ > kMostBytes) awaitFirst();
}

void Import::awaitFirst() {
  const Sent first = std::move(sent_.front());
  sent_.pop_front();
  bytes_ -= first.bytes;
  try {
    for (const auto& answer : first.answers) answer.value();
    ++stored_;
  } catch (const std::exception& error) {
    fail(first.line, error.what());
  }
}

void Import::fail(std::size_t line, std::string_view reason) {
  const std::string error = lineError(source_, line, reason);
  if (!keepsGoing_) {
    const bool isLast = line >= lastSent_;
    throw std::runtime_error(
        fmt::format("{}; nothing after {} was imported", error, isLast ? "it" : fmt::format("line {}", lastSent_)));
  }
  output_.error(error);
  ++failed_;
}

void Import::showProgress() {
  const auto now = std::chrono::steady_clock::now();
  if (now < nextProgress_) return;
  output_.status(fmt::format("{} keys imported", stored_));
  nextProgress_ = now + kProgressPeriod;
}

}  // namespace korvo
