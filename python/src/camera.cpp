// The camera model in Python: Camera, Module and Shader, camera files,
// pickling through the file form, and the panorama renderer.
#include <filesystem>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/camera/orbivane_linkage.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/camera/final_matrix.h"

namespace OrbivanePython {
namespace {

namespace fs = std::filesystem;
using CameraDescription::Orbivane;
using CameraDescription::OrbivaneModule;
using CameraPtr = std::shared_ptr<Orbivane>;
using ModulePtr = std::shared_ptr<OrbivaneModule>;

ModulePtr moduleOf(const Orbivane& camera, const std::string& name) {
  auto found = const_cast<Orbivane&>(camera).findModule(wide(name));
  if (!found) throw py::key_error("no module named '" + name + "' in the camera");
  return found;
}

Orbivane loadedOrRaise(Utils::ReturnState<Orbivane, std::string> loaded) {
  if (!loaded) throw LibraryError(loaded.error());
  return std::move(loaded).value();
}

// A file name made of the module's name: letters, digits, '.', '-' and '_'
// are kept, anything else becomes '_'.
std::string fileNameOf(const std::string& name) {
  std::string out;
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '_' || c == '.';
    out += plain ? c : '_';
  }
  if (out.empty() || out[0] == '.') out.insert(out.begin(), 'm');
  return out;
}

// Writes the camera file; pictures that exist only in memory are written
// first, beside it into "<file stem>.pictures/<module>.png", and the file
// points at them. The camera itself is not changed.
void saveCamera(const Orbivane& camera, const std::string& path) {
  Orbivane copy(camera);
  const fs::path file(path);
  if (file.filename().empty()) throw py::value_error("camera file '" + path + "': not a file name");
  const fs::path folder = file.parent_path() / (file.stem().string() + ".pictures");
  std::vector<std::string> used;
  for (auto& module : copy.modules()) {
    if (!module->image() || !module->imagePath().empty()) continue;
    std::string name = fileNameOf(narrow(module->name()));
    for (int n = 2; std::find(used.begin(), used.end(), name) != used.end(); ++n) {
      name = fileNameOf(narrow(module->name())) + "-" + std::to_string(n);
    }
    used.push_back(name);
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throw LibraryError("cannot create the picture folder '" + folder.string() + "': " + error.message());
    const std::string picturePath = (folder / (name + ".png")).string();
    auto saved = Image::saveImage(*module->image(), picturePath);
    if (!saved) throw LibraryError(saved.error());
    module->setImagePath(picturePath);
  }
  auto saved = CameraDescription::saveCameraFile(copy, path);
  if (!saved) throw LibraryError(saved.error());
}

// Pickled form: the camera file's JSON (picture paths absolute) and the
// pictures as arrays, so a camera arrives whole in another process.
py::tuple cameraState(const Orbivane& camera) {
  std::string text = CameraDescription::cameraToJson(camera, "/");
  py::dict pictures;
  for (const auto& module : camera.modules()) {
    if (module->image()) pictures[py::str(narrow(module->name()))] = arrayFromPicture(module->image());
  }
  return py::make_tuple(1, py::bytes(text), pictures);
}

CameraPtr cameraFromState(const py::tuple& state) {
  if (state.size() != 3 || state[0].cast<int>() != 1) throw py::value_error("not a pickled orbivane.Camera");
  CameraDescription::CameraFileOptions options;
  options.loadImages = false;
  auto camera = std::make_shared<Orbivane>(
      loadedOrRaise(CameraDescription::parseCameraJson(state[1].cast<std::string>(), "/", "pickled camera", options)));
  for (const auto& item : state[2].cast<py::dict>()) {
    const std::string name = item.first.cast<std::string>();
    moduleOf(*camera, name)->setImage(pictureFromArray(item.second, "picture of module '" + name + "'"));
  }
  return camera;
}

// A module on its own: a copy that names no neighbour (the neighbour is
// another module of the camera it came from). It pickles as a camera of
// just it.
ModulePtr standaloneCopy(const OrbivaneModule& module) {
  auto copy = std::make_shared<OrbivaneModule>(module);
  copy->setNeighbour(nullptr);
  return copy;
}

py::tuple moduleState(const OrbivaneModule& module) {
  Orbivane alone;
  alone.addModule(*standaloneCopy(module));
  return cameraState(alone);
}

ModulePtr moduleFromState(const py::tuple& state) {
  const CameraPtr camera = cameraFromState(state);
  if (camera->modules().size() != 1) throw py::value_error("not a pickled orbivane.Module");
  return camera->modules().front();
}

OrbivaneGeometry::MatrixGeometry& matrixGeometryOf(OrbivaneModule& module) {
  if (!module.geometry()) module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
  auto* geometry = module.matrixGeometry();
  if (!geometry) {
    throw py::value_error("module '" + narrow(module.name()) + "' has a " + module.geometry()->kind() +
                          " geometry, not a matrix geometry");
  }
  return *geometry;
}

py::object uvGridArray(const OrbivaneModule& module) {
  const auto* geometry = module.matrixGeometry();
  if (!geometry || !geometry->uvGrid() || geometry->uvGrid()->empty()) return py::none();
  const Utils::UVGrid& grid = *geometry->uvGrid();
  py::array_t<float> out({grid.rows() + 1, grid.columns() + 1, 2});
  auto view = out.mutable_unchecked<3>();
  for (int j = 0; j <= grid.rows(); ++j) {
    for (int i = 0; i <= grid.columns(); ++i) {
      view(j, i, 0) = grid.point(i, j).u;
      view(j, i, 1) = grid.point(i, j).v;
    }
  }
  return std::move(out);
}

void setUVGrid(OrbivaneModule& module, const py::object& value) {
  auto& geometry = matrixGeometryOf(module);
  if (value.is_none()) {
    geometry.clearUVGrid();
    return;
  }
  auto array = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(value);
  if (!array || array.ndim() != 3 || array.shape(2) != 2 || array.shape(0) < 2 || array.shape(1) < 2) {
    PyErr_Clear();
    throw py::value_error("a UV grid is an array of (rows + 1) x (columns + 1) x 2 texture coordinates (u, v)");
  }
  Utils::UVGrid grid(int(array.shape(1)) - 1, int(array.shape(0)) - 1);
  std::vector<Utils::UVGrid::UVPoint> points(std::size_t(array.shape(0) * array.shape(1)));
  for (std::size_t k = 0; k < points.size(); ++k) points[k] = {array.data()[2 * k], array.data()[2 * k + 1]};
  grid.setPoints(std::move(points));
  geometry.setUVGrid(grid);
}

py::object connectionDict(const OrbivaneModule& module) {
  if (!module.connection()) return py::none();
  const auto& c = *module.connection();
  py::dict out;
  out["backend"] = c.backend;
  out["address"] = c.address;
  out["port"] = c.port;
  out["user"] = c.user;
  out["password"] = c.password;
  out["device"] = c.device;
  return std::move(out);
}

void setConnection(OrbivaneModule& module, const py::object& value) {
  if (value.is_none()) {
    module.setConnection(std::nullopt);
    return;
  }
  const auto fields = value.cast<py::dict>();
  Quarn::QuarnConnection c;
  for (const auto& item : fields) {
    const std::string key = item.first.cast<std::string>();
    if (key == "backend") c.backend = item.second.cast<std::string>();
    else if (key == "address") c.address = item.second.cast<std::string>();
    else if (key == "port") c.port = item.second.cast<std::uint16_t>();
    else if (key == "user") c.user = item.second.cast<std::string>();
    else if (key == "password") c.password = item.second.cast<std::string>();
    else if (key == "device") c.device = item.second.cast<std::string>();
    else throw py::value_error("unknown connection key '" + key + "' (backend, address, port, user, password, device)");
  }
  module.setConnection(c);
}

py::object linkageDict(const OrbivaneModule& module) {
  if (!module.linkage()) return py::none();
  py::dict out;
  out["left"] = narrow(module.linkage()->left);
  out["right"] = narrow(module.linkage()->right);
  out["overlap"] = module.linkage()->overlap;
  return std::move(out);
}

void setLinkage(OrbivaneModule& module, const py::object& value) {
  if (value.is_none()) {
    module.setLinkage(nullptr);
    return;
  }
  const auto fields = value.cast<py::dict>();
  for (const auto& item : fields) {
    const std::string key = item.first.cast<std::string>();
    if (key != "left" && key != "right" && key != "overlap") {
      throw py::value_error("unknown linkage key '" + key + "' (left, right, overlap)");
    }
  }
  const std::string left = fields.contains("left") ? fields["left"].cast<std::string>() : std::string();
  const std::string right = fields.contains("right") ? fields["right"].cast<std::string>() : std::string();
  const float overlap = fields.contains("overlap") ? fields["overlap"].cast<float>() : 0.0f;
  module.setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(wide(left), wide(right), overlap));
}

py::object renderPanorama(const Orbivane& camera, const py::object& size, double feather, bool overlay, bool full) {
  OrbivaneRendering::PanoramaOptions options;
  if (!size.is_none()) {
    const auto wh = size.cast<std::pair<int, int>>();
    options.size = Utils::Size{wh.first, wh.second};
  }
  options.feather = feather;
  options.overlay = overlay;
  Utils::ReturnState<OrbivaneRendering::Panorama, std::string> result = Utils::failure("not drawn");
  {
    const LibraryCall release("Camera");
    result = OrbivaneRendering::renderPanorama(camera, options);
  }
  if (!result) throw LibraryError(result.error());
  const auto& panorama = result.value();
  if (!full) return arrayFromMat(panorama.picture);
  py::dict out;
  out["picture"] = arrayFromMat(panorama.picture);
  out["coverage"] = arrayFromMat(panorama.coverage);
  py::list drawn;
  for (const auto& name : panorama.drawn) drawn.append(narrow(name));
  out["drawn"] = drawn;
  out["skipped"] = panorama.skipped;
  return std::move(out);
}

// Renders a picture through a shader chain (and UV grid) as the viewer draws
// a module; the output size defaults to the picture's.
py::array shadePicture(const py::object& picture, const std::vector<OrbivaneGeometry::Shader>& shaders,
                       const py::object& size, const py::object& uvGrid) {
  auto image = pictureFromArray(picture, "picture");
  OrbivaneModule carrier(L"shaded");
  if (!uvGrid.is_none()) setUVGrid(carrier, uvGrid);
  Utils::Optional<Utils::Size> outputSize;
  if (!size.is_none()) {
    const auto wh = size.cast<std::pair<int, int>>();
    if (wh.first < 1 || wh.second < 1 || wh.first > 16384 || wh.second > 16384) {
      throw py::value_error("size must be (width, height) with sides of 1 to 16384 pixels");
    }
    outputSize = Utils::Size{wh.first, wh.second};
  }
  std::shared_ptr<Image::UniversalImageInterface> shaded;
  {
    const LibraryCall release("Camera");
    ImageSource::ImageShading shading;
    shading.SetShader(std::list<OrbivaneGeometry::Shader>(shaders.begin(), shaders.end()));
    if (const auto* geometry = carrier.matrixGeometry(); geometry && geometry->uvGrid()) {
      shading.SetUVGrid(*geometry->uvGrid());
    }
    shaded = shading.Apply(image, outputSize);
  }
  return arrayFromMat(Image::toMat(shaded));
}

// Shaders: the Shader record and picture shading.
void registerShaders(py::module_& m) {
  m.attr("CLIP_MATRIX_SHADER_UID") = OrbivaneGeometry::kClipMatrixShaderUid;
  m.attr("LENS_DISTORTION_SHADER_UID") = ImageSource::kLensDistortionShaderUid;
  py::class_<OrbivaneGeometry::Shader>(m, "Shader",
                                       "One step of a module's shader chain: an 8-digit hexadecimal UID and named "
                                       "parameters held as text ('i_' integer, 'f_' floating point).")
      .def(py::init<const std::string&, const std::map<std::string, std::string>&>(), py::arg("uid"),
           py::arg("parameters") = std::map<std::string, std::string>())
      .def_property_readonly("uid", &OrbivaneGeometry::Shader::uid,
           "The shader's UID (eight hex digits, e.g. '00060001').")
      .def_property_readonly(
          "parameters", [](const OrbivaneGeometry::Shader& s) { return s.parameters(); },
          "A copy of the parameters {name: text}; change them with set_parameter.")
      .def("parameter",
           [](const OrbivaneGeometry::Shader& s, const std::string& name) -> py::object {
             const std::string* value = s.parameter(name);
             return value ? py::object(py::str(*value)) : py::none();
           },
           py::arg("name"), "The parameter's text, or None.")
      .def("set_parameter", &OrbivaneGeometry::Shader::setParameter, py::arg("name"), py::arg("value"),
           "Sets one parameter's value (text, as the shader file holds it).")
      .def("__eq__", [](const OrbivaneGeometry::Shader& a, const OrbivaneGeometry::Shader& b) { return a == b; })
      .def("__repr__", [](const OrbivaneGeometry::Shader& s) {
        return "<orbivane.Shader " + s.uid() + " with " + std::to_string(s.parameters().size()) + " parameters>";
      });

  m.def(
      "clip_matrix_shader",
      [](const py::object& matrix) { return OrbivaneGeometry::clipMatrixShader(matrixFromObject(matrix)); },
      py::arg("matrix"), "The clip-matrix shader (UID 00050007, enabled) of a 4 x 4 matrix.");
  m.def("shade_picture", &shadePicture, py::arg("picture"), py::arg("shaders"), py::arg("size") = py::none(),
        py::arg("uv_grid") = py::none(),
        "Renders a picture through a shader chain (clip matrix, lens distortion) and optional UV grid, as the "
        "viewer draws a module; returns a BGR array of `size` (width, height), else the picture's size.");

}

using ModuleClass = py::class_<OrbivaneModule, ModulePtr>;

// Making, copying and pickling a module; its name, mounting and lens.
void registerModuleBasics(ModuleClass& cls) {
  cls.def(py::init([](const std::string& name, const py::object& matrix, const py::object& picture) {
            auto module = std::make_shared<OrbivaneModule>(wide(name));
            if (!matrix.is_none()) {
              module->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrixFromObject(matrix)));
            }
            if (!picture.is_none()) module->setImage(pictureFromArray(picture, "picture of module '" + name + "'"));
            return module;
          }),
          py::arg("name"), py::arg("matrix") = py::none(), py::arg("picture") = py::none(),
          "A module with a matrix geometry when `matrix` (4 x 4) is given, and a picture when `picture` is.")
      .def("__copy__", [](const OrbivaneModule& module) { return standaloneCopy(module); },
           "A copy that belongs to no camera (it names no neighbour); the picture is shared, as a camera copy "
           "shares it.")
      .def("__deepcopy__", [](const OrbivaneModule& module, const py::dict&) { return standaloneCopy(module); })
      .def(py::pickle([](const OrbivaneModule& module) { return moduleState(module); },
                      [](const py::tuple& state) { return moduleFromState(state); }))
      .def_property(
          "name", [](const OrbivaneModule& mod) { return narrow(mod.name()); },
          [](OrbivaneModule& mod, const std::string& name) { mod.setName(wide(name)); },
          "The module's name, unique in its camera.")
      .def_property("rotation", &OrbivaneModule::rotation, &OrbivaneModule::setRotation,
                    "Mounting rotation in degrees, clockwise.")
      .def_property("channel", &OrbivaneModule::channel, &OrbivaneModule::setChannel,
                    "The module's video channel on its device.")
      .def_property("fisheye", &OrbivaneModule::fisheye, &OrbivaneModule::setFisheye,
                    "Whether the module has a fisheye lens (its picture a bright lens circle).")
      .def_property(
          "fisheye_threshold",
          [](const OrbivaneModule& mod) -> py::object {
            const auto t = mod.fisheyeThreshold();
            return t ? py::object(py::int_(*t)) : py::none();
          },
          [](OrbivaneModule& mod, const py::object& value) {
            mod.setFisheyeThreshold(value.is_none() ? Utils::Optional<std::int16_t>()
                                                    : Utils::Optional<std::int16_t>(value.cast<std::int16_t>()));
          },
          "The module's own grey threshold for its lens circle, or None.");
}

// The module's geometry: its kind, matrix, shader and UV grid, and the shader chain.
void registerModuleGeometry(ModuleClass& cls) {
  cls.def_property_readonly("geometry_kind",
                            [](const OrbivaneModule& mod) -> py::object {
                              return mod.geometry() ? py::object(py::str(mod.geometry()->kind())) : py::none();
                            },
                            "'matrix', 'region', ... or None without geometry.")
      .def_property_readonly("has_matrix", [](const OrbivaneModule& mod) { return mod.matrixGeometry() != nullptr; },
                             "Whether the module has a matrix geometry.")
      .def_property(
          "matrix",
          [](const OrbivaneModule& mod) -> py::object {
            const auto* geometry = mod.matrixGeometry();
            return geometry ? py::object(matrixArray(geometry->matrix())) : py::none();
          },
          [](OrbivaneModule& mod, const py::object& value) {
            matrixGeometryOf(mod).setMatrix(matrixFromObject(value));
          },
          "The 4 x 4 float32 matrix (row-major) that takes texture coordinates (u, v, 0, 1) to the panorama "
          "surface, or None without matrix geometry. A copy: assign a whole matrix to change it.")
      .def_property(
          "shader_id",
          [](const OrbivaneModule& mod) { return mod.geometry() ? mod.geometry()->shaderId() : std::string(); },
          [](OrbivaneModule& mod, const std::string& uid) { matrixGeometryOf(mod).setShaderId(uid); },
          "UID of the shader that renders the module (the one the parameter search tunes); '' if none.")
      .def_property("uv_grid", &uvGridArray, &setUVGrid,
                    "The UV grid as a (rows + 1) x (columns + 1) x 2 float32 array of (u, v), or None.")
      .def_property(
          "shaders",
          [](const OrbivaneModule& mod) {
            return std::vector<OrbivaneGeometry::Shader>(mod.shaders().begin(), mod.shaders().end());
          },
          [](OrbivaneModule& mod, const std::vector<OrbivaneGeometry::Shader>& shaders) {
            mod.setShaders(std::list<OrbivaneGeometry::Shader>(shaders.begin(), shaders.end()));
          },
          "The shader chain (copies); assign a list to change it.");
}

// Sets the module's picture from an array (None removes it); it no longer comes from a file.
void setPicture(OrbivaneModule& mod, const py::object& value) {
  mod.setImage(value.is_none() ? nullptr : pictureFromArray(value, "picture of module '" + narrow(mod.name()) + "'"));
  mod.setImagePath(std::string());
}

// The module's picture, its place in the stitching chain and its connection.
void registerModuleSurroundings(ModuleClass& cls) {
  cls.def_property("picture", [](const OrbivaneModule& mod) { return arrayFromPicture(mod.image()); }, &setPicture,
                   "The module's picture as an H x W x 3 uint8 BGR array, or None. Setting an array uses it in place "
                   "where its layout allows (a writable BGR or BGRA array with packed pixels); other arrays are "
                   "copied.")
      .def_property(
          "picture_path", [](const OrbivaneModule& mod) { return mod.imagePath(); },
          [](OrbivaneModule& mod, const std::string& path) { mod.setImagePath(path); },
          "The file the picture came from ('' if none).")
      .def_property_readonly(
          "neighbour",
          [](const OrbivaneModule& mod) -> py::object {
            const auto next = mod.neighbour();
            return next ? py::object(py::str(narrow(next->name()))) : py::none();
          },
          "Name of the next module of the stitching chain, or None (set with Camera.set_neighbour).")
      .def_property("linkage", &linkageDict, &setLinkage, "{'left', 'right', 'overlap'} or None.")
      .def_property("connection", &connectionDict, &setConnection,
                    "What reaches the module's recording system: {'backend', 'address', 'port', 'user', "
                    "'password', 'device'} or None.")
      .def(
          "final_matrix",
          [](const OrbivaneModule& mod) -> py::object {
            const auto matrix = CameraDescription::finalMatrix(mod);
            return matrix ? py::object(matrixArray(*matrix)) : py::none();
          },
          "The module matrix composed with its clip matrix, as the viewer draws it; None when not available.")
      .def("copy", [](const OrbivaneModule& mod) { return std::make_shared<OrbivaneModule>(mod); },
           "A deep copy, not part of any camera.")
      .def("__repr__", [](const OrbivaneModule& mod) {
        std::string text = "<orbivane.Module '" + narrow(mod.name()) + "'";
        if (mod.image()) text += " " + std::to_string(mod.image()->width()) + "x" + std::to_string(mod.image()->height());
        return text + ">";
      });
}

// Modules: their place, picture, shaders and grid.
void registerModule(py::module_& m) {
  ModuleClass cls(
      m, "Module",
      "One sensor module of a camera: name, mounting rotation, geometry (a 4 x 4 matrix and an optional UV grid), "
      "shader chain, picture and connection. A Module taken from a Camera is that camera's module: changing it "
      "changes the camera.");
  registerModuleBasics(cls);
  registerModuleGeometry(cls);
  registerModuleSurroundings(cls);
}

using CameraClass = py::class_<Orbivane, CameraPtr>;

// Making a camera, and reading and writing camera files.
void registerCameraFiles(CameraClass& cls) {
  cls.def(py::init([](const std::string& name) {
            auto camera = std::make_shared<Orbivane>();
            camera->setName(wide(name));
            return camera;
          }),
          py::arg("name") = "")
      .def_static(
          "load",
          [](const std::string& path, bool loadPictures) {
            CameraDescription::CameraFileOptions options;
            options.loadImages = loadPictures;
            Utils::ReturnState<Orbivane, std::string> loaded = Utils::failure("not loaded");
            {
              const LibraryCall release("Camera");
              loaded = CameraDescription::loadCameraFile(path, options);
            }
            return std::make_shared<Orbivane>(loadedOrRaise(std::move(loaded)));
          },
          py::arg("path"), py::arg("load_pictures") = true,
          "Reads a camera file (JSON). Raises OrbivaneError naming the file, the JSON path and the problem.")
      .def_static(
          "from_json",
          [](const std::string& text, const std::string& baseDirectory, bool loadPictures) {
            CameraDescription::CameraFileOptions options;
            options.loadImages = loadPictures;
            return std::make_shared<Orbivane>(
                loadedOrRaise(CameraDescription::parseCameraJson(text, baseDirectory, "camera JSON", options)));
          },
          py::arg("text"), py::arg("base_directory") = ".", py::arg("load_pictures") = true,
          "A camera from JSON text; picture paths are resolved against base_directory.")
      .def("to_json", &CameraDescription::cameraToJson, py::arg("base_directory") = ".",
           "The camera file's JSON text; picture paths relative to base_directory.")
      .def("save", &saveCamera, py::arg("path"),
           "Writes the camera file atomically. Pictures that exist only in memory are written first into "
           "'<stem>.pictures/<module>.png' beside it; the camera itself is not changed.");
}

// The camera's name, panorama size and modules as properties.
void registerCameraProperties(CameraClass& cls) {
  cls.def_property("name", [](const Orbivane& c) { return narrow(c.name()); },
                   [](Orbivane& c, const std::string& name) { c.setName(wide(name)); }, "The camera's name.")
      .def_property(
          "panorama_size",
          [](const Orbivane& c) -> py::object {
            if (c.panoramaSize().empty()) return py::none();
            return py::make_tuple(c.panoramaSize().width, c.panoramaSize().height);
          },
          [](Orbivane& c, const py::object& size) {
            if (size.is_none()) {
              c.setPanoramaSize(Utils::Size{});
              return;
            }
            const auto wh = size.cast<std::pair<int, int>>();
            c.setPanoramaSize(Utils::Size{wh.first, wh.second});
          },
          "(width, height) of the stitched panorama in pixels, or None.")
      .def_property_readonly(
          "modules", [](const Orbivane& c) { return c.modules(); }, "The modules in camera order (the camera's own).")
      .def_property_readonly(
          "module_names",
          [](const Orbivane& c) {
            std::vector<std::string> names;
            for (const auto& mod : c.modules()) names.push_back(narrow(mod->name()));
            return names;
          },
          "The modules' names in camera order.");
}

// Finding, adding and removing modules, chaining them, and their pictures.
void registerCameraModules(CameraClass& cls) {
  cls.def("module", &moduleOf, py::arg("name"), "The module of that name; KeyError when there is none.")
      .def("add_module", [](Orbivane& c, const OrbivaneModule& mod) { return c.addModule(mod); }, py::arg("module"),
           "Appends a copy of the module and returns the camera's copy.")
      .def(
          "remove_module",
          [](Orbivane& c, const std::string& name) {
            const auto found = moduleOf(c, name);
            auto& modules = c.modules();
            modules.erase(std::find(modules.begin(), modules.end(), found));
          },
          py::arg("name"),
          "Removes the module of that name (KeyError when there is none); neighbours that named it name none.")
      .def(
          "set_neighbour",
          [](Orbivane& c, const std::string& name, const py::object& neighbour) {
            moduleOf(c, name)->setNeighbour(neighbour.is_none() ? nullptr : moduleOf(c, neighbour.cast<std::string>()));
          },
          py::arg("module"), py::arg("neighbour"), "Makes `neighbour` (a module name or None) the next in the chain.")
      .def(
          "pictures",
          [](const Orbivane& c) {
            py::dict out;
            for (const auto& mod : c.modules())
              if (mod->image()) out[py::str(narrow(mod->name()))] = arrayFromPicture(mod->image());
            return out;
          },
          "The modules' pictures {name: array}, as the calibrators take them.");
}

// Copying, pickling, length, membership and the printed form.
void registerCameraProtocols(CameraClass& cls) {
  cls.def("copy", [](const Orbivane& c) { return std::make_shared<Orbivane>(c); },
          "A deep copy: its modules are its own (pictures are shared, not copied).")
      .def("__copy__", [](const Orbivane& c) { return std::make_shared<Orbivane>(c); })
      .def("__deepcopy__", [](const Orbivane& c, const py::dict&) { return std::make_shared<Orbivane>(c); })
      .def("__len__", [](const Orbivane& c) { return c.modules().size(); })
      .def("__contains__", [](const Orbivane& c, const std::string& name) { return bool(c.findModule(wide(name))); })
      .def(py::pickle([](const Orbivane& c) { return cameraState(c); },
                      [](const py::tuple& state) { return cameraFromState(state); }))
      .def("__repr__", [](const Orbivane& c) {
        std::string names;
        for (const auto& mod : c.modules()) names += (names.empty() ? "" : ", ") + narrow(mod->name());
        return "<orbivane.Camera '" + narrow(c.name()) + "' modules=[" + names + "]>";
      });
}

// The camera: its modules, panorama and files.
void registerCameraClass(py::module_& m) {
  CameraClass cls(
      m, "Camera",
      "A multi-sensor panoramic camera description: its modules in order. Copies (copy.copy, copy.deepcopy, "
      ".copy()) are deep; pictures are shared. Pickles through its file form with the pictures as arrays.");
  registerCameraFiles(cls);
  registerCameraProperties(cls);
  registerCameraModules(cls);
  registerCameraProtocols(cls);
}

}  // namespace

void registerCamera(py::module_& m) {
  registerShaders(m);
  registerModule(m);
  registerCameraClass(m);
  m.def("render_panorama", &renderPanorama, py::arg("camera"), py::arg("size") = py::none(),
        py::arg("feather") = 0.1, py::arg("overlay") = false, py::arg("full") = false,
        "Draws the stitched panorama as the viewer draws it (final matrices, UV grids, lens shaders, feathered "
        "blending) and returns it as an H x W x 3 uint8 BGR array; size=(W, H) or the camera's panorama size. "
        "With full=True returns {'picture', 'coverage', 'drawn', 'skipped'}.");
}

}  // namespace OrbivanePython
