#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>
#include <libmw/local.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

// What the service HXJournal answers, for people: line by line, in two columns.

/// @param answer  Of `HXJournal.explain`.
/// @param now     What "ago" counts from; times of another day have their date.
/// @param width   Of a line, in columns; longer values are cut.
std::vector<std::string> explainText(const HX::HXValue& answer, mw::SystemTimePoint now, std::size_t width);

/// @param answer  Of `HXJournal.demand`.
/// @param now     As for `explainText`.
std::vector<std::string> demandText(const HX::HXValue& answer, mw::SystemTimePoint now);

/// @param brokers  That are running.
/// @param answer   Of `HXJournal.report`.
/// @param views    Of `HXViews.report`; invalid where there is none.
/// @param now      As for `explainText`.
std::vector<std::string> doctorText(const std::vector<mw::RunningBroker>& brokers, const HX::HXValue& answer,
                                    const HX::HXValue& views, mw::SystemTimePoint now);

/// "0.4 ms", "12 s".
std::string durationText(double seconds);

}  // namespace korvo
