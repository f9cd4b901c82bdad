#include "codemap.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <link.h>
#include <string>
#include <utility>

namespace HX::codemap {
namespace {

/// Where one library lies. Libraries are never unmapped, so that an entry stays true.
struct Entry {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  std::atomic<const char*> text{nullptr};  ///< Replaced by longer ones, and never given back: a handler may read it.
};

constexpr std::size_t kMost = 512;
std::array<Entry, kMost> entries;
std::atomic<std::size_t> count{0};

Mutex& writing() {
  static auto* const mutex = new Mutex;  // Guards the writing of `entries` and `count`.
  return *mutex;
}

// Kept where reading it needs no memory, which a handler must not ask for.
[[gnu::tls_model("initial-exec")]] thread_local constinit const char* opening = nullptr;

Entry* entryOf(std::uintptr_t address) noexcept {
  const auto end = entries.begin() + static_cast<std::ptrdiff_t>(count.load(std::memory_order_acquire));
  const auto found = std::find_if(entries.begin(), end,
                                  [&](const Entry& entry) { return entry.begin <= address && address < entry.end; });
  return found == end ? nullptr : &*found;
}

struct Search {
  std::uintptr_t address = 0;
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

int visit(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  auto& search = *static_cast<Search*>(data);
  std::uintptr_t begin = UINTPTR_MAX;
  std::uintptr_t end = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& part = info->dlpi_phdr[i];
    if (part.p_type != PT_LOAD) continue;
    begin = std::min<std::uintptr_t>(begin, info->dlpi_addr + part.p_vaddr);
    end = std::max<std::uintptr_t>(end, info->dlpi_addr + part.p_vaddr + part.p_memsz);
  }
  if (search.address < begin || search.address >= end) return 0;
  search.begin = begin;
  search.end = end;
  return 1;
}

/// A text that stays where it is until the process has ended: a crash may come later than any destructor. Called with
/// `writing` held.
const char* keep(std::string text) {
  static auto* const kept = new std::deque<std::string>;
  return kept->emplace_back(std::move(text)).c_str();
}

}  // namespace

void addLibrary(const void* address, const std::string& path) {
  Search search{reinterpret_cast<std::uintptr_t>(address)};
  if (dl_iterate_phdr(&visit, &search) == 0) return;
  const MutexLock lock(writing());
  const std::size_t known = count.load();
  if (entryOf(search.address) || known == kMost) return;
  entries[known].begin = search.begin;
  entries[known].end = search.end;
  entries[known].text = keep("module library " + path);
  count.store(known + 1, std::memory_order_release);
}

void addModule(const void* address, const std::string& name) {
  const MutexLock lock(writing());
  Entry* const entry = entryOf(reinterpret_cast<std::uintptr_t>(address));
  if (!entry) return;
  const std::string before = entry->text.load();
  const std::string prefix = "module library ";
  // "module library PATH", "module A (PATH)", "module A, B (PATH)"
  const std::size_t path = before.rfind(" (");
  const std::string after = before.starts_with(prefix) ? "module " + name + " (" + before.substr(prefix.size()) + ")"
                                                       : before.substr(0, path) + ", " + name + before.substr(path);
  entry->text = keep(after);
}

const char* find(std::uintptr_t address) noexcept {
  const Entry* const entry = entryOf(address);
  return entry ? entry->text.load() : nullptr;
}

Opening::Opening(const std::string& path) noexcept : outer_(std::exchange(opening, path.c_str())) {}
Opening::~Opening() { opening = outer_; }
const char* Opening::present() noexcept { return opening; }

}  // namespace HX::codemap
