#include "view.h"

#include "base/event.h"
#include "base/format.h"
#include "base/keyquestions.h"
#include "base/output.h"
#include "base/target.h"
#include "celltext.h"
#include "detail.h"
#include "feed.h"
#include "fullscreen.h"
#include "model.h"
#include "paint.h"
#include "table.h"

#include <algorithm>
#include <array>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

/// No eye needs more, and a terminal far away may not bear it.
constexpr auto kShortestDraw = 100ms;

std::string_view nameOf(LiveColumn column) {
  constexpr std::array<std::string_view, 5> kNames{"key", "value", "age", "rate", "subscribers"};
  return kNames[static_cast<std::size_t>(column)];
}

class LiveScreen {
 public:
  LiveScreen(Target& target, std::string name, const std::string& filter, int stop)
      : name_(std::move(name)), stop_(stop), model_(filter), feed_(target, model_) {}

  void run() {
    const int keyboard = screen_.hasKeyboard() ? STDIN_FILENO : -1;
    while (true) {
      const auto nextLook = feed_.advance(shownKeys());
      if (Clock::now() >= nextDraw_) draw(terminalSize());
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(std::min(nextLook, nextDraw_) - Clock::now());
      const int ready = waitReadable({stop_, keyboard, feed_.file(), screen_.resizedFile()}, std::max(wait, 0ms));
      if (ready == 0 || (ready == 1 && !obeyKeyboard())) return;
      if (ready == 2) nextDraw_ = std::min(nextDraw_, lastDraw_ + kShortestDraw);
      if (ready == 3) {
        screen_.takeResize();
        nextDraw_ = {};
      }
    }
  }

 private:
  using Clock = std::chrono::steady_clock;

  /// What title, head and last line leave.
  static std::size_t pageOf(const Size& size) { return std::max<std::size_t>(size.rows, 5) - 3; }

  std::vector<std::string> shownKeys() const {
    std::vector<std::string> keys;
    keys.reserve(page_.size());
    for (const LiveRow& row : page_) keys.push_back(row.key);
    return keys;
  }

  /// When the ages on the screen will have changed.
  std::chrono::nanoseconds untilOlder(mw::SystemTimePoint now) const {
    std::chrono::nanoseconds wait = 30s;
    for (const LiveRow& row : page_) {
      const auto age = row.facts ? now - row.facts->time : 1h;
      if (age < 120s) wait = std::min<std::chrono::nanoseconds>(wait, age < 10s ? 500ms : 1000ms);
      // A rate falls when nothing comes any more.
      if (row.rate.value_or(0) > 0) wait = std::min<std::chrono::nanoseconds>(wait, 1s);
    }
    return wait;
  }

  void draw(const Size& size) {
    const auto now = mw::systemNow();
    const std::string trouble = feed_.trouble();
    const auto held = feed_.lock();
    const std::size_t rows = pageOf(size);
    std::vector<std::string> lines{paint_(Style::Title, padded(title(now), size.columns))};
    for (auto& line : body(size, rows, now)) lines.push_back(std::move(line));
    lines.resize(rows + 2);
    lines.push_back(lastLine(size.columns, trouble));
    screen_.show(lines);
    drawn_ = size;
    lastDraw_ = Clock::now();
    nextDraw_ = lastDraw_ + std::chrono::duration_cast<Clock::duration>(untilOlder(now));
  }

  std::vector<std::string> body(const Size& size, std::size_t rows, mw::SystemTimePoint now) {
    page_ = model_.page(rows, now);
    if (!inspected_) return drawTable(page_, layOut(size.columns, model_.keyColumns()), paint_, now);
    const auto row = std::ranges::find(page_, *inspected_, &LiveRow::key);
    const auto rate = row == page_.end() ? std::nullopt : row->rate;
    if (feed_.detail()) return drawDetail(*feed_.detail(), rate, size.columns, rows + 1, paint_, now);
    return {fit(*inspected_, size.columns), "  nothing is known of it"};
  }

  std::string title(mw::SystemTimePoint now) const {
    const std::string count = model_.filter().empty()
                                  ? fmt::format("{} keys", model_.keyCount())
                                  : fmt::format("{} of {} keys", model_.shownCount(), model_.keyCount());
    const std::string head = fmt::format("korvo {}  {}  ", name_, count);
    if (inspected_) return fmt::format("{}{}  Enter goes back, q quits", head, clockTime(now));
    return fmt::format("{}by {}{}  {}  q quits, / filters, k v a r s sort, Enter tells more", head,
                       nameOf(model_.column()), model_.isReversed() ? ", turned round" : "", clockTime(now));
  }

  std::string lastLine(std::size_t columns, const std::string& trouble) const {
    if (isTyping_) return fit("/" + model_.filter() + "_", columns);
    if (!trouble.empty()) return paint_(Style::Trouble, fit(trouble, columns));
    const std::string logged = log_.text();
    return fit(logged.empty() && !model_.filter().empty() ? "/" + model_.filter() : logged, columns);
  }

  static std::string clockTime(mw::SystemTimePoint now) { return formatTime(now).substr(11, 5); }

  /// @return False when the person wants to leave.
  bool obeyKeyboard() {
    std::array<char, 64> typed{};
    const ssize_t count = read(STDIN_FILENO, typed.data(), typed.size());
    if (count <= 0) return false;
    nextDraw_ = {};
    for (const auto& key : splitKeys({typed.data(), static_cast<std::size_t>(count)})) {
      if (isTyping_) {
        typeFilter(key);
      } else if (key == "q" || key == "Q" || key == "\x04") {
        return false;
      } else if (inspected_) {
        if (isEnter(key) || key == "\x1b" || key == "\x7f" || key == "\x1b[D" || key == "\x1bOD") inspect(std::nullopt);
      } else {
        obey(key);
      }
    }
    return true;
  }

  static bool isEnter(const std::string& key) { return key == "\r" || key == "\n"; }

  void inspect(const std::optional<std::string>& key) {
    inspected_ = key;
    feed_.inspect(key);
  }

  void typeFilter(const std::string& key) {
    const auto held = feed_.lock();
    std::string filter = model_.filter();
    if (isEnter(key)) {
      isTyping_ = false;
    } else if (key == "\x1b") {
      isTyping_ = false;
      filter.clear();
    } else if (key == "\x7f" || key == "\b") {
      while (!filter.empty() && (static_cast<unsigned char>(filter.back()) & 0xc0) == 0x80) filter.pop_back();
      if (!filter.empty()) filter.pop_back();
    } else if (static_cast<unsigned char>(key[0]) >= 0x20) {
      filter += key;
    }
    if (filter != model_.filter()) model_.setFilter(filter);
  }

  /// Opens the key that is chosen.
  void inspectChosen() {
    {
      const auto held = feed_.lock();
      page_ = model_.page(pageOf(drawn_), mw::systemNow());  // Keys before this one may have come with it.
    }
    const auto chosen = std::ranges::find(page_, true, &LiveRow::isChosen);
    if (chosen != page_.end()) inspect(chosen->key);
  }

  void obey(const std::string& key) {
    if (isEnter(key)) return inspectChosen();
    const auto held = feed_.lock();
    const auto page = static_cast<std::ptrdiff_t>(pageOf(drawn_));
    if (key == "/") isTyping_ = true;
    if (key == "k") model_.sortBy(LiveColumn::Key);
    if (key == "v") model_.sortBy(LiveColumn::Value);
    if (key == "a") model_.sortBy(LiveColumn::Age);
    if (key == "r") model_.sortBy(LiveColumn::Rate);
    if (key == "s") model_.sortBy(LiveColumn::Subscribers);
    if (key == "\x1b[A" || key == "\x1bOA") model_.move(-1);
    if (key == "\x1b[B" || key == "\x1bOB") model_.move(1);
    if (key == "\x1b[5~") model_.move(-page);
    if (key == "\x1b[6~" || key == " ") model_.move(page);
    if (key == "\x1b[H" || key == "\x1b[1~" || key == "\x1bOH") model_.moveToBegin();
    if (key == "\x1b[F" || key == "\x1b[4~" || key == "\x1bOF") model_.moveToEnd();
  }

  const std::string name_;
  const int stop_;
  const Painter paint_ = Painter::ofOutput();
  LiveModel model_;
  LiveFeed feed_;
  LogLine log_;
  FullScreen screen_;
  bool isTyping_ = false;
  std::optional<std::string> inspected_;  // The key that the screen is about; none: the table.
  std::vector<LiveRow> page_;             // As it was drawn last.
  Size drawn_;
  Clock::time_point lastDraw_;
  Clock::time_point nextDraw_;
};

/// Who subscribes is in no feed. It is asked for keys of which it is not known, and for all of them now and then.
void askForSubscribers(LiveModel& model, LiveFeed& feed, HX::HXProxy& memory, bool ofAll) {
  std::vector<std::string> keys;
  {
    const auto held = feed.lock();
    for (const LiveRow& row : model.page(model.keyCount(), mw::systemNow())) {
      if (ofAll || (row.facts && !row.facts->subscribers)) keys.push_back(row.key);
    }
  }
  askInParts(memory, keys, {askSubscribers}, [&](const std::string& key, KeyAnswers& answers) {
    const auto count = answers[0].reference().to<std::vector<std::string>>().size();
    const auto held = feed.lock();
    model.learnSubscribers(key, count);
  });
}

void printTable(LiveModel& model, LiveFeed& feed, Output& output) {
  const auto now = mw::systemNow();
  std::vector<LiveRow> rows;
  std::size_t keyColumns = 0;
  {
    const auto held = feed.lock();
    rows = model.page(model.keyCount(), now);
    keyColumns = model.keyColumns();
  }
  output.line(formatTime(now));
  for (LiveRow& one : rows) one.isChosen = false;  // There is nobody to choose.
  for (const auto& line : drawTable(rows, layOut(0, keyColumns), Painter(false), now)) output.line(line);
  output.line("");
}

void printTables(Target& target, Output& output, const std::string& filter, int stop) {
  LiveModel model(filter);
  LiveFeed feed(target, model);
  feed.begin();
  while (!feed.isComplete()) {
    if (waitReadable({stop, feed.file()}) == 0) return;
    feed.advance({});
  }
  constexpr unsigned kTablesForALook = 10;
  for (unsigned table = 0; output.works(); ++table) {
    feed.advance({});
    askForSubscribers(model, feed, *target.memory().proxy(), table % kTablesForALook == 0);
    printTable(model, feed, output);
    if (waitReadable({stop}, 1s) == 0) return;
  }
}

}  // namespace

void runLiveView(Target& target, Output& output, const std::string& name, const std::string& filter, int stop) {
  if (isatty(STDOUT_FILENO)) {
    LiveScreen(target, name, filter, stop).run();
  } else {
    printTables(target, output, filter, stop);
  }
}

}  // namespace korvo
