// Where a JSON parse stops; see json_path.h.
#include "utils/json_path.h"

#include "orbivane/utils/json_text.h"

#include <set>
#include <vector>

#include <nlohmann/json.hpp>

namespace Utils {
namespace {

using json = nlohmann::json;

// Follows where a SAX parse is in the document, so that a number the parser
// cannot hold (1e400) is reported with its JSON path.
class PathTracker : public nlohmann::json_sax<json> {
 public:
  std::string path() const {
    std::string out;
    for (const Level& level : stack_) {
      out += "/" + (level.array ? std::to_string(level.index) : level.key);
    }
    return out.empty() ? "/" : out;
  }
  bool null() override { return value(); }
  bool boolean(bool) override { return value(); }
  bool number_integer(number_integer_t) override { return value(); }
  bool number_unsigned(number_unsigned_t) override { return value(); }
  bool number_float(number_float_t, const string_t&) override { return value(); }
  bool string(string_t&) override { return value(); }
  bool binary(binary_t&) override { return value(); }
  bool start_object(std::size_t) override {
    stack_.push_back({false, 0, std::string(), {}});
    return true;
  }
  bool key(string_t& key) override {
    Level& level = stack_.back();
    level.key = key;
    if (!level.keys.insert(key).second) {
      repeated_ = true;  // stops the parse here; path() names the key
      return false;
    }
    return true;
  }
  // Whether the parse stopped at a key its object already had.
  bool repeated() const { return repeated_; }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override {
    stack_.push_back({true, 0, std::string(), {}});
    return true;
  }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

 private:
  struct Level {
    bool array;
    std::size_t index;
    std::string key;
    std::set<std::string> keys;  // an object's keys so far
  };
  bool value() {
    if (!stack_.empty() && stack_.back().array) ++stack_.back().index;
    return true;
  }
  bool close() {
    stack_.pop_back();
    return value();
  }
  std::vector<Level> stack_;
  bool repeated_ = false;
};


}  // namespace

std::string jsonPathWhereParsingStops(const std::string& text) {
  PathTracker tracker;
  try {
    json::sax_parse(text, &tracker);
  } catch (const json::exception&) {
  }
  return tracker.path();
}

ReturnState<nlohmann::json, std::string> parseJsonText(const std::string& text, const std::string& what) {
  // A key given twice in one object would silently keep its last value.
  PathTracker tracker;
  try {
    json::sax_parse(text, &tracker);
  } catch (const json::exception&) {
  }
  if (tracker.repeated()) return failure(what + ": at " + tracker.path() + ": the key is given twice in its object");
  try {
    return json::parse(text);
  } catch (const json::parse_error& e) {
    std::string words = e.what();
    const std::size_t bracket = words.find("] ");  // drop nlohmann's "[json.exception.parse_error.101] "
    if (bracket != std::string::npos) words = words.substr(bracket + 2);
    return failure(what + ": not valid JSON: " + words);
  } catch (const json::exception&) {
    // The only other way a parse fails: a number too large for a double.
    return failure(what + ": at " + jsonPathWhereParsingStops(text) +
                   ": a number too large to be held (beyond about 1.8e308)");
  }
}

ReturnState<bool, std::string> checkJsonText(const std::string& text, const std::string& what) {
  auto parsed = parseJsonText(text, what);
  if (!parsed) return failure(parsed.error());
  return true;
}

}  // namespace Utils
