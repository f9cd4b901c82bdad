#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace HX::keeper {

/// A prepared statement. Its functions do what those of SQLite of the same names do.
class Statement {
 public:
  /// Is empty when the database does not understand `sql`: then `step` gives an error.
  Statement(sqlite3* database, const char* sql) {
    sqlite3_stmt* made = nullptr;
    prepared_ = sqlite3_prepare_v2(database, sql, -1, &made, nullptr);
    statement_.reset(made);
  }

  /// @param bytes  Must stay until `step` has returned.
  void bind(int index, std::span<const std::byte> bytes) {
    // A null pointer would be NULL, and no empty blob.
    static constexpr std::byte kNothing{};
    sqlite3_bind_blob64(statement_.get(), index, bytes.empty() ? &kNothing : bytes.data(), bytes.size(), SQLITE_STATIC);
  }
  void bind(int index, std::string_view text) { bind(index, std::as_bytes(std::span(text))); }
  void bind(int index, std::int64_t number) { sqlite3_bind_int64(statement_.get(), index, number); }

  int step() { return statement_ ? sqlite3_step(statement_.get()) : prepared_; }
  void reset() { sqlite3_reset(statement_.get()); }

  std::span<const std::byte> bytes(int column) const {
    const void* const data = sqlite3_column_blob(statement_.get(), column);
    return {static_cast<const std::byte*>(data),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
  }
  std::string text(int column) const {
    const auto content = bytes(column);
    return {reinterpret_cast<const char*>(content.data()), content.size()};
  }
  std::int64_t number(int column) const { return sqlite3_column_int64(statement_.get(), column); }

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  int prepared_ = SQLITE_ERROR;
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

}  // namespace HX::keeper
