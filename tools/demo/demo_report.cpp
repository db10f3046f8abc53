// The demo's report page; see demo_report.h.
#include "demo_report.h"

#include <cstdio>
#include <cctype>
#include <sstream>

namespace Tool {
namespace Demo {

std::string escapeHtml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

namespace {

std::string seconds(double s) {
  char text[32];
  if (s < 1.0) {
    std::snprintf(text, sizeof text, "%.0f ms", s * 1000.0);
  } else {
    std::snprintf(text, sizeof text, "%.1f s", s);
  }
  return text;
}

const char* kStyle = R"(
body { font-family: system-ui, sans-serif; margin: 2em auto; max-width: 1200px; color: #1d2330; padding: 0 1em; }
h1 { margin-bottom: 0.2em; }
.facts { color: #556; margin: 0 0 1em 0; padding: 0; list-style: none; }
table { border-collapse: collapse; margin: 0.8em 0; }
th, td { border: 1px solid #ccd; padding: 0.3em 0.7em; text-align: left; vertical-align: top; }
th { background: #eef1f7; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
.ok { color: #0a7a2f; font-weight: 600; }
.off { color: #b3261e; font-weight: 600; }
section { border-top: 2px solid #dde; margin-top: 2em; padding-top: 0.5em; }
figure { display: inline-block; margin: 0.5em 1em 0.5em 0; vertical-align: top; max-width: 100%; }
figure img { max-width: 100%; border: 1px solid #ccd; background: #f4f4f4; }
figure.wide { display: block; }
figcaption { color: #445; font-size: 0.9em; max-width: 560px; }
#picture-check { padding: 0.4em 0.8em; background: #f4f6fa; border-left: 4px solid #99a; }
)";

const char* kPictureCheck = R"(
<script>
window.addEventListener('load', function () {
  var images = Array.prototype.slice.call(document.querySelectorAll('img'));
  var broken = images.filter(function (i) { return !(i.complete && i.naturalWidth > 0); });
  var shown = images.length - broken.length;
  document.body.setAttribute('data-pictures-total', String(images.length));
  document.body.setAttribute('data-pictures-loaded', String(shown));
  var check = document.getElementById('picture-check');
  if (broken.length === 0) {
    check.textContent = 'All ' + images.length + ' pictures of this report are shown.';
  } else {
    check.textContent = broken.length + ' of ' + images.length + ' pictures could not be shown: ' +
      broken.map(function (i) { return i.getAttribute('src'); }).join(', ');
    check.style.borderLeftColor = '#b3261e';
  }
});
</script>
)";

}  // namespace

std::string reportHtml(const std::string& title, const std::vector<std::string>& facts,
                       const std::vector<Section>& sections) {
  std::ostringstream html;
  html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" << escapeHtml(title)
       << "</title>\n<style>" << kStyle << "</style>\n</head>\n<body>\n<h1>" << escapeHtml(title) << "</h1>\n";
  html << "<ul class=\"facts\">\n";
  for (const auto& fact : facts) html << "<li>" << escapeHtml(fact) << "</li>\n";
  html << "</ul>\n<p id=\"picture-check\">Pictures not checked yet (the check needs JavaScript).</p>\n";

  html << "<h2>Summary</h2>\n<table id=\"summary\">\n<tr><th>Calibrator</th><th>Result</th><th>Error against the "
          "truth</th><th>Time</th><th>Verdict</th></tr>\n";
  for (const auto& s : sections) {
    html << "<tr><td><a href=\"#" << escapeHtml(s.id) << "\">" << escapeHtml(s.title) << "</a></td><td>"
         << escapeHtml(s.result) << "</td><td>" << escapeHtml(s.truthError.empty() ? "-" : s.truthError)
         << "</td><td class=\"num\">" << seconds(s.seconds) << "</td><td class=\"" << (s.passed ? "ok" : "off")
         << "\">" << (s.passed ? "within tolerance" : "outside tolerance") << "</td></tr>\n";
  }
  html << "</table>\n";

  for (const auto& s : sections) {
    html << "<section id=\"" << escapeHtml(s.id) << "\">\n<h2>" << escapeHtml(s.title) << "</h2>\n<p>"
         << escapeHtml(s.what) << "</p>\n";
    if (!s.table.empty()) {
      html << "<table>\n";
      for (std::size_t r = 0; r < s.table.size(); ++r) {
        html << "<tr>";
        for (const auto& cell : s.table[r]) {
          const bool number = r > 0 && !cell.empty() && (std::isdigit(static_cast<unsigned char>(cell[0])) ||
                                                         cell[0] == '-' || cell[0] == '+');
          if (r == 0) {
            html << "<th>" << escapeHtml(cell) << "</th>";
          } else {
            html << "<td" << (number ? " class=\"num\"" : "") << ">" << escapeHtml(cell) << "</td>";
          }
        }
        html << "</tr>\n";
      }
      html << "</table>\n";
    }
    for (const auto& f : s.figures) {
      html << "<figure" << (f.file.find("panorama") != std::string::npos ? " class=\"wide\"" : "") << "><img src=\""
           << escapeHtml(f.file) << "\" alt=\"" << escapeHtml(f.caption) << "\"><figcaption>" << escapeHtml(f.caption)
           << "</figcaption></figure>\n";
    }
    html << "</section>\n";
  }
  html << kPictureCheck << "</body>\n</html>\n";
  return html.str();
}

}  // namespace Demo
}  // namespace Tool
