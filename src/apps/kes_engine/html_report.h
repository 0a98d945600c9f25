// What a run came to, as a page for people to look at.
#pragma once

#include <string>

#include "report.h"

namespace kes_engine {

// A whole page of HTML that needs nothing besides: no scripts, no other files, light and dark, to
// be read on paper, too. Every picture has its numbers in a table, and they are those of the other
// reports.
std::string HtmlReport(const Result &result);

}  // namespace kes_engine
