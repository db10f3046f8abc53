// The demo's report: one HTML page with each calibrator's result, its error
// against the known truth and its time, and the pictures written beside it
// (referenced by relative path, so the folder can be moved or sent as a
// whole). A small script at the end of the page counts the pictures the
// browser could show and says so at the top of the page (and in the body's
// data-pictures-loaded / data-pictures-total attributes).
#pragma once

#include <string>
#include <vector>

namespace Tool {
namespace Demo {

struct Figure {
  std::string file;     // relative to the report
  std::string caption;
};

struct Section {
  std::string id;        // anchor
  std::string title;     // "Target matching"
  std::string what;      // one or two sentences: what was done, on what
  std::string result;    // the headline result, short
  std::string truthError;  // the headline error against the truth, short ("" when there is no truth)
  bool passed = true;    // whether the result is within its stated tolerance
  double seconds = 0.0;  // wall time of the calibrator
  std::vector<std::vector<std::string>> table;  // first row: column titles
  std::vector<Figure> figures;
};

// The page. `facts` are lines shown under the title (machine, scene, total time).
std::string reportHtml(const std::string& title, const std::vector<std::string>& facts,
                       const std::vector<Section>& sections);

std::string escapeHtml(const std::string& text);

}  // namespace Demo
}  // namespace Tool
