#pragma once

#include <string_view>

namespace zav::pyxctl {

/// The page of report-page/page.html, which the build puts into the program.
extern const std::string_view kPageTemplate;

}  // namespace zav::pyxctl
