// Reading and writing camera description files (JSON).
#include "orbivane/camera/camera_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include <nlohmann/json.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"
#include "orbivane/utils/atomic_file.h"
#include "utils/json_path.h"

namespace CameraDescription {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const char kFormat[] = "orbivane-camera";
const int kVersion = 1;
// The largest exposure gain a camera file may hold (a factor on 0..255 values).
constexpr double kLargestExposureGain = 16.0;

// Thrown inside the parser; carries the JSON path of the offending value.
struct FileError : std::runtime_error {
  FileError(const std::string& where, const std::string& what) : std::runtime_error("at " + where + ": " + what) {}
};

std::string typeName(const json& j) { return j.type_name(); }

void allowOnly(const json& object, const std::string& where, std::initializer_list<const char*> keys) {
  if (!object.is_object()) throw FileError(where, "expected an object, got " + typeName(object));
  const std::set<std::string> allowed(keys.begin(), keys.end());
  for (const auto& item : object.items()) {
    if (allowed.count(item.key()) == 0) throw FileError(where, "unknown key '" + item.key() + "'");
  }
}

const json* optionalKey(const json& object, const char* key) {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

const json& requiredKey(const json& object, const std::string& where, const char* key) {
  const json* value = optionalKey(object, key);
  if (value == nullptr) throw FileError(where, std::string("missing key '") + key + "'");
  return *value;
}

std::string asString(const json& j, const std::string& where) {
  if (!j.is_string()) throw FileError(where, "expected a string, got " + typeName(j));
  return j.get<std::string>();
}

// Every number of a camera file is held in single precision: a value that
// does not fit (1e39) is refused here, never turned into an infinity.
double asNumber(const json& j, const std::string& where) {
  if (!j.is_number()) throw FileError(where, "expected a number, got " + typeName(j));
  const double v = j.get<double>();
  if (!std::isfinite(v)) throw FileError(where, "expected a finite number");
  if (std::fabs(v) > double(std::numeric_limits<float>::max())) {
    throw FileError(where, "the value " + j.dump() + " does not fit a single-precision number (largest about 3.4e38)");
  }
  return v;
}


// A module's vignetting, {"r2": a, "r4": b}: its factor 1 + a r^2 + b r^4
// must stay within [kVignettingFactors] over the picture (r from 0 to 1).
constexpr double kVignettingFactors[2] = {0.25, 4.0};
OrbivaneModule::Vignetting vignettingFrom(const json& j, const std::string& where);

long long asInteger(const json& j, const std::string& where, long long low, long long high) {
  if (!j.is_number_integer()) throw FileError(where, "expected an integer, got " + typeName(j));
  const long long v = j.get<long long>();
  if (v < low || v > high) {
    throw FileError(where, "expected an integer from " + std::to_string(low) + " to " + std::to_string(high) +
                               ", got " + std::to_string(v));
  }
  return v;
}

OrbivaneModule::Vignetting vignettingFrom(const json& j, const std::string& where) {
  if (!j.is_object()) throw FileError(where, "expected an object {\"r2\": ..., \"r4\": ...}, got " + typeName(j));
  allowOnly(j, where, {"r2", "r4"});
  OrbivaneModule::Vignetting v;
  if (const json* r2 = optionalKey(j, "r2")) v.r2 = asNumber(*r2, where + "/r2");
  if (const json* r4 = optionalKey(j, "r4")) v.r4 = asNumber(*r4, where + "/r4");
  double low = 1.0, high = 1.0;
  v.factorRange(low, high);
  if (!(low >= kVignettingFactors[0] && high <= kVignettingFactors[1])) {
    const double reached = low < kVignettingFactors[0] ? low : high;
    throw FileError(where, "the factor 1 + r2 r^2 + r4 r^4 reaches " + std::to_string(reached) +
                               " over the picture; expected it within 0.25 to 4");
  }
  return v;
}

bool asBool(const json& j, const std::string& where) {
  if (!j.is_boolean()) throw FileError(where, "expected true or false, got " + typeName(j));
  return j.get<bool>();
}

const json& asArray(const json& j, const std::string& where, std::size_t size = 0) {
  if (!j.is_array()) throw FileError(where, "expected an array, got " + typeName(j));
  if (size != 0 && j.size() != size) {
    throw FileError(where, "expected " + std::to_string(size) + " elements, got " + std::to_string(j.size()));
  }
  return j;
}

Utils::UVGrid parseGrid(const json& j, const std::string& where) {
  allowOnly(j, where, {"cols", "rows", "points"});
  const int cols = static_cast<int>(asInteger(requiredKey(j, where, "cols"), where + "/cols", 1, 4096));
  const int rows = static_cast<int>(asInteger(requiredKey(j, where, "rows"), where + "/rows", 1, 4096));
  Utils::UVGrid grid(cols, rows);
  if (const json* points = optionalKey(j, "points")) {
    const std::size_t expected = static_cast<std::size_t>(cols + 1) * static_cast<std::size_t>(rows + 1);
    asArray(*points, where + "/points", expected);
    std::vector<Utils::UVGrid::UVPoint> list;
    list.reserve(expected);
    for (std::size_t i = 0; i < points->size(); ++i) {
      const std::string at = where + "/points/" + std::to_string(i);
      const json& p = asArray((*points)[i], at, 2);
      list.push_back({static_cast<float>(asNumber(p[0], at + "/0")), static_cast<float>(asNumber(p[1], at + "/1"))});
    }
    grid.setPoints(std::move(list));
  }
  return grid;
}

std::unique_ptr<OrbivaneGeometry::Geometry> parseGeometry(const json& j, const std::string& where) {
  if (!j.is_object()) throw FileError(where, "expected an object, got " + typeName(j));
  const std::string type = asString(requiredKey(j, where, "type"), where + "/type");
  std::unique_ptr<OrbivaneGeometry::Geometry> geometry;
  if (type == "matrix") {
    allowOnly(j, where, {"type", "matrix", "uvGrid", "shaderId"});
    auto matrixGeometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>();
    if (const json* m = optionalKey(j, "matrix")) {
      asArray(*m, where + "/matrix", 16);
      std::array<float, 16> values{};
      for (std::size_t i = 0; i < 16; ++i) {
        values[i] = static_cast<float>(asNumber((*m)[i], where + "/matrix/" + std::to_string(i)));
      }
      matrixGeometry->setMatrix(Utils::Matrix4x4(values));
    }
    if (const json* g = optionalKey(j, "uvGrid")) matrixGeometry->setUVGrid(parseGrid(*g, where + "/uvGrid"));
    geometry = std::move(matrixGeometry);
  } else if (type == "region") {
    allowOnly(j, where, {"type", "region", "triangles", "shaderId"});
    auto region = std::make_unique<OrbivaneGeometry::RegionBasedGeometry>();
    if (const json* r = optionalKey(j, "region")) {
      asArray(*r, where + "/region", 4);
      Utils::SurfaceQuad quad;
      for (std::size_t i = 0; i < 4; ++i) {
        const std::string at = where + "/region/" + std::to_string(i);
        const json& p = asArray((*r)[i], at, 2);
        quad.corners[i] = {static_cast<float>(asNumber(p[0], at + "/0")), static_cast<float>(asNumber(p[1], at + "/1"))};
      }
      region->setRegion(quad);
    }
    if (const json* t = optionalKey(j, "triangles")) {
      asArray(*t, where + "/triangles");
      Utils::TriangleList mesh;
      for (std::size_t i = 0; i < t->size(); ++i) {
        const std::string at = where + "/triangles/" + std::to_string(i);
        const json& tri = asArray((*t)[i], at, 3);
        Utils::TriangleVertex v[3];
        for (std::size_t k = 0; k < 3; ++k) {
          const std::string vat = at + "/" + std::to_string(k);
          const json& vertex = asArray(tri[k], vat, 4);
          v[k] = {static_cast<float>(asNumber(vertex[0], vat + "/0")), static_cast<float>(asNumber(vertex[1], vat + "/1")),
                  static_cast<float>(asNumber(vertex[2], vat + "/2")), static_cast<float>(asNumber(vertex[3], vat + "/3"))};
        }
        mesh.triangles->push_back({v[0], v[1], v[2]});
      }
      region->setMesh(mesh);
    }
    geometry = std::move(region);
  } else {
    throw FileError(where + "/type", "unknown geometry type '" + type + "' (expected \"matrix\" or \"region\")");
  }
  if (const json* s = optionalKey(j, "shaderId")) geometry->setShaderId(asString(*s, where + "/shaderId"));
  return geometry;
}

OrbivaneGeometry::Shader parseShader(const json& j, const std::string& where) {
  allowOnly(j, where, {"uid", "parameters"});
  const std::string uid = asString(requiredKey(j, where, "uid"), where + "/uid");
  std::map<std::string, std::string> parameters;
  if (const json* p = optionalKey(j, "parameters")) {
    if (!p->is_object()) throw FileError(where + "/parameters", "expected an object, got " + typeName(*p));
    for (const auto& item : p->items()) {
      parameters[item.key()] = asString(item.value(), where + "/parameters/" + item.key());
    }
  }
  try {
    return OrbivaneGeometry::Shader(uid, parameters);
  } catch (const std::exception& e) {
    throw FileError(where + "/uid", "'" + uid + "': " + e.what());
  }
}

Quarn::QuarnConnection parseConnection(const json& j, const std::string& where) {
  allowOnly(j, where, {"backend", "address", "port", "user", "password", "device"});
  Quarn::QuarnConnection c;
  if (const json* v = optionalKey(j, "backend")) c.backend = asString(*v, where + "/backend");
  if (const json* v = optionalKey(j, "address")) c.address = asString(*v, where + "/address");
  if (const json* v = optionalKey(j, "port")) c.port = static_cast<std::uint16_t>(asInteger(*v, where + "/port", 0, 65535));
  if (const json* v = optionalKey(j, "user")) c.user = asString(*v, where + "/user");
  if (const json* v = optionalKey(j, "password")) c.password = asString(*v, where + "/password");
  if (const json* v = optionalKey(j, "device")) c.device = asString(*v, where + "/device");
  return c;
}

std::string resolvePath(const std::string& path, const std::string& baseDirectory) {
  fs::path p(path);
  if (p.is_relative()) p = fs::path(baseDirectory.empty() ? "." : baseDirectory) / p;
  return p.lexically_normal().string();
}

Orbivane parseCamera(const json& root, const std::string& baseDirectory, const CameraFileOptions& options) {
  allowOnly(root, "/", {"format", "version", "name", "panoramaSize", "modules"});
  const std::string format = asString(requiredKey(root, "/", "format"), "/format");
  if (format != kFormat) throw FileError("/format", "expected \"" + std::string(kFormat) + "\", got \"" + format + "\"");
  const long long version = asInteger(requiredKey(root, "/", "version"), "/version", 1, 1000000);
  if (version != kVersion) throw FileError("/version", "version " + std::to_string(version) + " is not supported (expected 1)");
  Orbivane camera;
  if (const json* n = optionalKey(root, "name")) camera.setName(Utils::fromUtf8(asString(*n, "/name")));
  if (const json* s = optionalKey(root, "panoramaSize")) {
    asArray(*s, "/panoramaSize", 2);
    camera.setPanoramaSize({static_cast<int>(asInteger((*s)[0], "/panoramaSize/0", 1, 1 << 20)),
                            static_cast<int>(asInteger((*s)[1], "/panoramaSize/1", 1, 1 << 20))});
  }
  const json& modules = asArray(requiredKey(root, "/", "modules"), "/modules");
  std::map<std::string, std::shared_ptr<Image::RGBImage>> pictures;  // by resolved path
  std::vector<std::pair<std::size_t, std::wstring>> neighbours;
  std::set<std::wstring> names;
  for (std::size_t i = 0; i < modules.size(); ++i) {
    const std::string where = "/modules/" + std::to_string(i);
    const json& m = modules[i];
    allowOnly(m, where, {"name", "image", "exposureGain", "vignetting", "rotation", "channel", "fisheye", "fisheyeThreshold", "neighbour", "linkage",
                         "geometry", "shaders", "connection"});
    const std::string name = asString(requiredKey(m, where, "name"), where + "/name");
    if (name.empty()) throw FileError(where + "/name", "a module name must not be empty");
    OrbivaneModule module(Utils::fromUtf8(name));
    if (!names.insert(module.name()).second) throw FileError(where + "/name", "a second module named '" + name + "'");
    if (const json* v = optionalKey(m, "rotation")) {
      module.setRotation(static_cast<std::int32_t>(asInteger(*v, where + "/rotation", -36000, 36000)));
    }
    if (const json* v = optionalKey(m, "channel")) {
      module.setChannel(static_cast<std::int32_t>(asInteger(*v, where + "/channel", 0, 1 << 30)));
    }
    if (const json* v = optionalKey(m, "exposureGain")) {
      const double gain = asNumber(*v, where + "/exposureGain");
      if (!(gain > 0.0 && gain <= kLargestExposureGain)) {
        throw FileError(where + "/exposureGain", "expected a gain above 0 and at most " +
                                                     std::to_string(int(kLargestExposureGain)) + ", got " + v->dump());
      }
      module.setExposureGain(gain);
    }
    if (const json* v = optionalKey(m, "vignetting")) module.setVignetting(vignettingFrom(*v, where + "/vignetting"));
    if (const json* v = optionalKey(m, "fisheye")) module.setFisheye(asBool(*v, where + "/fisheye"));
    if (const json* v = optionalKey(m, "fisheyeThreshold")) {
      module.setFisheyeThreshold(static_cast<std::int16_t>(asInteger(*v, where + "/fisheyeThreshold", 0, 255)));
    }
    if (const json* v = optionalKey(m, "neighbour")) {
      neighbours.emplace_back(i, Utils::fromUtf8(asString(*v, where + "/neighbour")));
    }
    if (const json* v = optionalKey(m, "linkage")) {
      const std::string at = where + "/linkage";
      allowOnly(*v, at, {"left", "right", "overlap"});
      auto linkage = std::make_unique<OrbivaneLinkage>();
      if (const json* x = optionalKey(*v, "left")) linkage->left = Utils::fromUtf8(asString(*x, at + "/left"));
      if (const json* x = optionalKey(*v, "right")) linkage->right = Utils::fromUtf8(asString(*x, at + "/right"));
      if (const json* x = optionalKey(*v, "overlap")) {
        const double overlap = asNumber(*x, at + "/overlap");
        if (overlap < 0.0 || overlap > 1.0) throw FileError(at + "/overlap", "expected a share from 0 to 1");
        linkage->overlap = static_cast<float>(overlap);
      }
      module.setLinkage(std::move(linkage));
    }
    if (const json* v = optionalKey(m, "geometry")) module.setGeometry(parseGeometry(*v, where + "/geometry"));
    if (const json* v = optionalKey(m, "shaders")) {
      asArray(*v, where + "/shaders");
      std::list<OrbivaneGeometry::Shader> shaders;
      for (std::size_t k = 0; k < v->size(); ++k) {
        shaders.push_back(parseShader((*v)[k], where + "/shaders/" + std::to_string(k)));
      }
      module.setShaders(std::move(shaders));
    }
    if (const json* v = optionalKey(m, "connection")) module.setConnection(parseConnection(*v, where + "/connection"));
    if (const json* v = optionalKey(m, "image")) {
      const std::string path = resolvePath(asString(*v, where + "/image"), baseDirectory);
      module.setImagePath(path);
      if (options.loadImages) {
        // Modules that name one file share its picture, read once.
        auto& shared = pictures[path];
        if (!shared) {
          auto image = Image::loadImage(path);
          if (!image) throw FileError(where + "/image", image.error());
          shared = image.value();
        }
        module.setImage(shared);
      }
    }
    camera.addModule(module);
  }
  for (const auto& [index, name] : neighbours) {
    auto target = camera.findModule(name);
    if (!target) {
      throw FileError("/modules/" + std::to_string(index) + "/neighbour", "no module named '" + Utils::toUtf8(name) + "'");
    }
    camera.modules()[index]->setNeighbour(target);
  }
  return camera;
}

using ordered = nlohmann::ordered_json;

ordered geometryToJson(const OrbivaneGeometry::Geometry& geometry) {
  ordered g;
  if (const auto* m = dynamic_cast<const OrbivaneGeometry::MatrixGeometry*>(&geometry)) {
    g["type"] = "matrix";
    g["matrix"] = m->matrix().values();
    if (m->uvGrid()) {
      const Utils::UVGrid& grid = *m->uvGrid();
      ordered points = ordered::array();
      for (const auto& p : grid.points()) points.push_back({p.u, p.v});
      ordered uv;
      uv["cols"] = grid.columns();
      uv["rows"] = grid.rows();
      uv["points"] = points;
      g["uvGrid"] = uv;
    }
  } else if (const auto* r = dynamic_cast<const OrbivaneGeometry::RegionBasedGeometry*>(&geometry)) {
    g["type"] = "region";
    ordered region = ordered::array();
    for (const auto& c : r->region().corners) region.push_back({c.x, c.y});
    g["region"] = region;
    ordered triangles = ordered::array();
    if (r->mesh().triangles) {
      for (const auto& t : *r->mesh().triangles) {
        ordered tri = ordered::array();
        for (const auto* v : {&t.a, &t.b, &t.c}) tri.push_back({v->x, v->y, v->u, v->v});
        triangles.push_back(tri);
      }
    }
    g["triangles"] = triangles;
  } else {
    throw std::invalid_argument("a geometry of kind '" + geometry.kind() + "' cannot be written to a camera file");
  }
  if (!geometry.shaderId().empty()) g["shaderId"] = geometry.shaderId();
  return g;
}


// The shortest text that reads back (strtof) to the same single-precision
// value: 0.4, not 0.4000000059604645. Negative zero is written as 0: JSON
// readers take "-0" for the integer zero, and no value in a camera file means
// anything different for the sign of a zero.
std::string shortestFloat(double value) {
  const float f = static_cast<float>(value);
  if (f == 0.0f) return "0";
  // No string of fewer significant digits than the shortest round trip reads
  // back as `f`, so the search for the fewest "%g" digits starts there (a
  // camera file holds hundreds of thousands of grid numbers).
  char text[48];
  const auto shortest = std::to_chars(text, text + sizeof text, f, std::chars_format::scientific);
  int digits = 0;
  for (const char* c = text; c != shortest.ptr && *c != 'e'; ++c) digits += (*c >= '0' && *c <= '9') ? 1 : 0;
  for (digits = std::max(digits, 1); digits <= 9; ++digits) {
    const auto written = std::to_chars(text, text + sizeof text, f, std::chars_format::general, digits);
    float back = 0.0f;
    std::from_chars(text, written.ptr, back);
    if (back == f || digits == 9) return std::string(text, written.ptr);
  }
  return text;
}

// Writes camera JSON for people: keys in the order they were put in, two
// spaces of indent, arrays of numbers on one line, the 16 numbers of a
// matrix as four rows of four, a UV grid's points one grid row per line.
class CameraJsonWriter {
 public:
  std::string write(const ordered& root) {
    value(root, 0, std::string());
    out_ += "\n";
    return out_;
  }

 private:
  static bool scalar(const ordered& j) { return !j.is_object() && !j.is_array(); }
  static bool flat(const ordered& j) {
    if (!j.is_array()) return scalar(j);
    for (const auto& e : j)
      if (!scalar(e)) return false;
    return true;
  }
  // An array of short arrays of scalars, e.g. [[u, v], ...].
  static bool pairs(const ordered& j) {
    if (!j.is_array() || j.empty()) return false;
    for (const auto& e : j)
      if (!e.is_array() || !flat(e)) return false;
    return true;
  }
  void indent(int level) { out_.append(std::size_t(2 * level), ' '); }

  void scalarValue(const ordered& j) {
    if (j.is_number_float()) {
      const double v = j.get<double>();
      // What cannot be read back is not written.
      if (!std::isfinite(v) || std::fabs(v) > double(std::numeric_limits<float>::max())) {
        throw std::invalid_argument("a value is not a finite single-precision number (" + std::to_string(v) + ")");
      }
      out_ += shortestFloat(v);
    } else {
      out_ += j.dump(-1, ' ', false, ordered::error_handler_t::replace);
    }
  }

  void inlineArray(const ordered& j) {
    out_ += "[";
    for (std::size_t i = 0; i < j.size(); ++i) {
      if (i > 0) out_ += ", ";
      if (j[i].is_array()) {
        inlineArray(j[i]);
      } else {
        scalarValue(j[i]);
      }
    }
    out_ += "]";
  }

  // `perLine` elements of an array on each line.
  void rows(const ordered& j, int level, std::size_t perLine) {
    out_ += "[\n";
    for (std::size_t i = 0; i < j.size(); ++i) {
      if (i % perLine == 0) indent(level + 1);
      if (j[i].is_array()) {
        inlineArray(j[i]);
      } else {
        scalarValue(j[i]);
      }
      if (i + 1 < j.size()) out_ += (i % perLine == perLine - 1) ? ",\n" : ", ";
    }
    out_ += "\n";
    indent(level);
    out_ += "]";
  }

  void value(const ordered& j, int level, const std::string& key, const ordered* parent = nullptr) {
    if (j.is_object()) {
      if (j.empty()) {
        out_ += "{}";
        return;
      }
      out_ += "{\n";
      std::size_t i = 0;
      for (auto it = j.begin(); it != j.end(); ++it, ++i) {
        indent(level + 1);
        out_ += ordered(it.key()).dump(-1, ' ', false, ordered::error_handler_t::replace) + ": ";
        value(it.value(), level + 1, it.key(), &j);
        if (i + 1 < j.size()) out_ += ",";
        out_ += "\n";
      }
      indent(level);
      out_ += "}";
    } else if (j.is_array()) {
      if (key == "matrix" && j.size() == 16 && flat(j)) {
        rows(j, level, 4);
      } else if (key == "points" && parent != nullptr && parent->contains("cols") && pairs(j)) {
        rows(j, level, std::size_t(parent->at("cols").get<int>() + 1));
      } else if (flat(j) || (pairs(j) && j.size() <= 4)) {
        inlineArray(j);
      } else if (pairs(j)) {
        rows(j, level, 1);
      } else {
        if (j.empty()) {
          out_ += "[]";
          return;
        }
        out_ += "[\n";
        for (std::size_t i = 0; i < j.size(); ++i) {
          indent(level + 1);
          value(j[i], level + 1, std::string());
          if (i + 1 < j.size()) out_ += ",";
          out_ += "\n";
        }
        indent(level);
        out_ += "]";
      }
    } else {
      scalarValue(j);
    }
  }

  std::string out_;
};

}  // namespace

Utils::ReturnState<Orbivane, std::string> parseCameraJson(const std::string& text, const std::string& baseDirectory,
                                                          const std::string& source,
                                                          const CameraFileOptions& options) {
  auto parsed = Utils::parseJsonText(text, "camera file '" + source + "'");
  if (!parsed) return Utils::failure(parsed.error());
  const json& root = parsed.value();
  try {
    return parseCamera(root, baseDirectory, options);
  } catch (const std::exception& e) {
    return Utils::failure("camera file '" + source + "': " + e.what());
  }
}

Utils::ReturnState<Orbivane, std::string> loadCameraFile(const std::string& path, const CameraFileOptions& options) {
  auto text = Utils::readWholeFile(path);
  if (!text) return Utils::failure("camera file '" + path + "': " + text.error());
  const std::string base = fs::path(path).parent_path().string();
  return parseCameraJson(text.value(), base, path, options);
}

std::string cameraToJson(const Orbivane& camera, const std::string& baseDirectory) {
  // Keys in a fixed, logical order: the camera's identity first, then its
  // modules; in a module its name, picture, geometry and shaders, then the rest.
  ordered root;
  root["format"] = kFormat;
  root["version"] = kVersion;
  if (!camera.name().empty()) root["name"] = Utils::toUtf8(camera.name());
  if (!camera.panoramaSize().empty()) root["panoramaSize"] = {camera.panoramaSize().width, camera.panoramaSize().height};
  ordered modules = ordered::array();
  std::set<std::wstring> names;
  for (const auto& module : camera.modules()) {
    if (!module) continue;
    // Write only what loadCameraFile reads back.
    if (module->name().empty()) throw std::invalid_argument("a module has an empty name");
    if (!names.insert(module->name()).second) {
      throw std::invalid_argument("two modules are named '" + Utils::toUtf8(module->name()) + "'");
    }
    const auto next = module->neighbour();
    if (next && std::find(camera.modules().begin(), camera.modules().end(), next) == camera.modules().end()) {
      throw std::invalid_argument("the neighbour of module '" + Utils::toUtf8(module->name()) +
                                  "' is not part of the camera");
    }
    ordered m;
    m["name"] = Utils::toUtf8(module->name());
    // The picture's own file when it was read from one, else the path the
    // module was loaded with.
    const std::string picture =
        module->image() && !module->image()->sourcePath().empty() ? module->image()->sourcePath() : module->imagePath();
    if (!picture.empty()) {
      const fs::path base = fs::absolute(baseDirectory.empty() ? fs::path(".") : fs::path(baseDirectory));
      const fs::path image = fs::absolute(picture).lexically_normal();
      const fs::path relative = image.lexically_relative(base);
      m["image"] = relative.empty() ? image.string() : relative.string();
    }
    if (module->exposureGain() != 1.0) m["exposureGain"] = module->exposureGain();
    if (!module->vignetting().none()) {
      m["vignetting"] = ordered{{"r2", module->vignetting().r2}, {"r4", module->vignetting().r4}};
    }
    if (module->geometry()) m["geometry"] = geometryToJson(*module->geometry());
    if (!module->shaders().empty()) {
      ordered shaders = ordered::array();
      for (const auto& s : module->shaders()) {
        ordered shader;
        shader["uid"] = s.uid();
        shader["parameters"] = ordered::object();
        for (const auto& [name, text] : s.parameters()) shader["parameters"][name] = text;
        shaders.push_back(shader);
      }
      m["shaders"] = shaders;
    }
    if (module->rotation() != 0) m["rotation"] = module->rotation();
    if (module->channel() != 0) m["channel"] = module->channel();
    if (module->fisheye()) m["fisheye"] = true;
    if (module->fisheyeThreshold()) m["fisheyeThreshold"] = *module->fisheyeThreshold();
    if (const auto neighbour = module->neighbour()) m["neighbour"] = Utils::toUtf8(neighbour->name());
    if (const OrbivaneLinkage* l = module->linkage()) {
      ordered linkage;
      linkage["left"] = Utils::toUtf8(l->left);
      linkage["right"] = Utils::toUtf8(l->right);
      linkage["overlap"] = l->overlap;
      m["linkage"] = linkage;
    }
    if (const auto& c = module->connection()) {
      ordered connection;
      connection["backend"] = c->backend;
      connection["address"] = c->address;
      connection["port"] = c->port;
      connection["user"] = c->user;
      connection["password"] = c->password;
      connection["device"] = c->device;
      m["connection"] = connection;
    }
    modules.push_back(m);
  }
  root["modules"] = modules;
  return CameraJsonWriter().write(root);
}

Utils::ReturnState<bool, std::string> saveCameraFile(const Orbivane& camera, const std::string& path) {
  std::string text;
  try {
    text = cameraToJson(camera, fs::path(path).parent_path().string());
  } catch (const std::exception& e) {
    return Utils::failure("camera file '" + path + "': " + e.what());
  }
  return Utils::writeFileAtomically(path, text);
}

}  // namespace CameraDescription
