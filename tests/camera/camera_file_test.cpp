// Camera description files: full round trips through the file, the minimal
// file, and errors that name the file, the JSON path and the fault.
#include "orbivane/camera/camera_file.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/image/image_conversion.h"
#include "support/matchers.h"
#include "synthetic/sample_data.h"

namespace {

namespace fs = std::filesystem;
using CameraDescription::Orbivane;
using CameraDescription::OrbivaneModule;
using ::testing::AllOf;
using ::testing::HasSubstr;

// Every key a camera file can hold. The picture path is relative to the file.
const char kFullCamera[] = R"({
  "format": "orbivane-camera", "version": 1,
  "name": "Rooftop S\u00fcd", "panoramaSize": [4096, 1024],
  "modules": [
    {"name": "Modul S\u00fcd-Ost \u2713", "image": "pictures/fruits.jpg", "rotation": -90, "channel": 3,
     "fisheye": true, "fisheyeThreshold": 97, "neighbour": "B",
     "linkage": {"left": "", "right": "B", "overlap": 0.2},
     "geometry": {"type": "matrix",
                  "matrix": [1.5, 0, 0, 0.25, 0, 1.25, 0, -0.125, 0, 0, 1, 0, 0.01, 0.02, 0, 1],
                  "uvGrid": {"cols": 2, "rows": 1,
                             "points": [[0, 0], [0.5, 0.1], [1, 0], [0, 1], [0.5, 0.9], [1, 1]]},
                  "shaderId": "00050007"},
     "shaders": [{"uid": "00050007", "parameters": {"i_clipMatrix_enabled": "1", "f_clipMatrix_m00": "1.500000"}},
                 {"uid": "  0001ABCD "}],
     "connection": {"backend": "simulated", "address": "/tmp/state.json", "port": 8554,
                    "user": "operator", "password": "secret", "device": "cam-1"}},
    {"name": "B", "neighbour": "Modul S\u00fcd-Ost \u2713",
     "geometry": {"type": "region", "region": [[1, 0], [2, 0], [2, 1], [1, 1]],
                  "triangles": [[[1, 0, 0, 0], [2, 0, 1, 0], [1, 1, 0, 1]]]}}
  ]
})";

// A folder with the full camera file and its picture.
struct CameraFolder {
  Synthetic::TemporaryDirectory dir;
  std::string file;
  CameraFolder() : file(dir.file("camera.json")) {
    fs::create_directory(dir.file("pictures"));
    fs::copy_file(Synthetic::samplePath("fruits.jpg"), dir.file("pictures/fruits.jpg"));
    Synthetic::writeText(file, kFullCamera);
  }
};

void expectSameCamera(const Orbivane& a, const Orbivane& b) {
  EXPECT_EQ(a.name(), b.name());
  EXPECT_EQ(a.panoramaSize(), b.panoramaSize());
  ASSERT_EQ(a.modules().size(), b.modules().size());
  for (std::size_t i = 0; i < a.modules().size(); ++i) {
    SCOPED_TRACE("module " + std::to_string(i));
    const OrbivaneModule& x = *a.modules()[i];
    const OrbivaneModule& y = *b.modules()[i];
    EXPECT_EQ(x.name(), y.name());
    EXPECT_EQ(x.rotation(), y.rotation());
    // A file holds numbers in single precision.
    EXPECT_EQ(float(x.exposureGain()), float(y.exposureGain()));
    EXPECT_EQ(float(x.vignetting().r2), float(y.vignetting().r2));
    EXPECT_EQ(float(x.vignetting().r4), float(y.vignetting().r4));
    EXPECT_EQ(x.channel(), y.channel());
    EXPECT_EQ(x.fisheye(), y.fisheye());
    EXPECT_EQ(x.fisheyeThreshold(), y.fisheyeThreshold());
    EXPECT_EQ(x.imagePath(), y.imagePath());
    EXPECT_EQ(x.neighbour() ? x.neighbour()->name() : L"-", y.neighbour() ? y.neighbour()->name() : L"-");
    EXPECT_EQ(x.shaders(), y.shaders());
    EXPECT_EQ(x.connection(), y.connection());
    ASSERT_EQ(x.linkage() != nullptr, y.linkage() != nullptr);
    if (x.linkage()) {
      EXPECT_EQ(x.linkage()->left, y.linkage()->left);
      EXPECT_EQ(x.linkage()->right, y.linkage()->right);
      EXPECT_EQ(x.linkage()->overlap, y.linkage()->overlap);
    }
    ASSERT_EQ(x.geometry() != nullptr, y.geometry() != nullptr);
    if (!x.geometry()) continue;
    EXPECT_EQ(x.geometry()->kind(), y.geometry()->kind());
    EXPECT_EQ(x.geometry()->shaderId(), y.geometry()->shaderId());
    if (x.matrixGeometry()) {
      ASSERT_NE(y.matrixGeometry(), nullptr);
      EXPECT_EQ(x.matrixGeometry()->matrix(), y.matrixGeometry()->matrix());
      EXPECT_EQ(x.matrixGeometry()->uvGrid(), y.matrixGeometry()->uvGrid());
    }
    const auto* rx = dynamic_cast<const OrbivaneGeometry::RegionBasedGeometry*>(x.geometry());
    const auto* ry = dynamic_cast<const OrbivaneGeometry::RegionBasedGeometry*>(y.geometry());
    if (rx) {
      ASSERT_NE(ry, nullptr);
      for (std::size_t c = 0; c < 4; ++c) {
        EXPECT_EQ(rx->region().corners[c].x, ry->region().corners[c].x);
        EXPECT_EQ(rx->region().corners[c].y, ry->region().corners[c].y);
      }
      ASSERT_EQ(rx->mesh().size(), ry->mesh().size());
      for (std::size_t t = 0; t < rx->mesh().size(); ++t) {
        const auto& p = (*rx->mesh().triangles)[t];
        const auto& q = (*ry->mesh().triangles)[t];
        EXPECT_EQ(p.c.x, q.c.x);
        EXPECT_EQ(p.b.u, q.b.u);
        EXPECT_EQ(p.c.v, q.c.v);
      }
    }
  }
}

// Writes `text` as a camera file and returns the load error (or "(loaded)").
std::string loadError(const Synthetic::TemporaryDirectory& dir, const std::string& text) {
  const std::string path = dir.file("broken.json");
  Synthetic::writeText(path, text);
  const auto loaded = CameraDescription::loadCameraFile(path);
  return loaded.hasError() ? loaded.error() : "(loaded)";
}

// A camera file of one module "A" whose body is `module` (without braces).
std::string oneModule(const std::string& module) {
  return R"({"format": "orbivane-camera", "version": 1, "modules": [{"name": "A")" +
         (module.empty() ? "" : ", " + module) + "}]}";
}

}  // namespace

TEST(CameraFile, FullFileLoadsEveryKey) {
  CameraFolder folder;
  const auto loaded = CameraDescription::loadCameraFile(folder.file);
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  const Orbivane& camera = loaded.value();
  EXPECT_EQ(camera.name(), L"Rooftop S\u00FCd");
  EXPECT_EQ(camera.panoramaSize(), (Utils::Size{4096, 1024}));
  ASSERT_EQ(camera.modules().size(), 2u);

  const OrbivaneModule& a = *camera.modules()[0];
  EXPECT_EQ(a.name(), L"Modul S\u00FCd-Ost \u2713");
  EXPECT_EQ(a.rotation(), -90);
  EXPECT_EQ(a.channel(), 3);
  EXPECT_TRUE(a.fisheye());
  EXPECT_EQ(a.fisheyeThreshold(), std::optional<std::int16_t>(97));
  EXPECT_EQ(a.neighbour().get(), camera.modules()[1].get());
  EXPECT_EQ(camera.modules()[1]->neighbour().get(), &a);
  ASSERT_NE(a.linkage(), nullptr);
  EXPECT_EQ(a.linkage()->left, L"");
  EXPECT_EQ(a.linkage()->right, L"B");
  EXPECT_FLOAT_EQ(a.linkage()->overlap, 0.2f);

  ASSERT_NE(a.matrixGeometry(), nullptr);
  const Utils::Matrix4x4 truth(
      std::array<float, 16>{1.5f, 0, 0, 0.25f, 0, 1.25f, 0, -0.125f, 0, 0, 1, 0, 0.01f, 0.02f, 0, 1});
  EXPECT_THAT(a.matrixGeometry()->matrix(), Testing::MatrixNear(truth, 0.0));
  EXPECT_EQ(a.geometry()->shaderId(), "00050007");
  ASSERT_TRUE(a.matrixGeometry()->uvGrid().has_value());
  const Utils::UVGrid& grid = *a.matrixGeometry()->uvGrid();
  EXPECT_EQ(grid.columns(), 2);
  EXPECT_EQ(grid.rows(), 1);
  EXPECT_FLOAT_EQ(grid.point(1, 0).v, 0.1f);
  EXPECT_FLOAT_EQ(grid.point(1, 1).v, 0.9f);

  ASSERT_EQ(a.shaders().size(), 2u);
  EXPECT_EQ(a.shaders().front().uid(), "00050007");
  EXPECT_EQ(*a.shaders().front().parameter("f_clipMatrix_m00"), "1.500000");
  EXPECT_EQ(a.shaders().back().uid(), "0001ABCD");
  EXPECT_EQ(a.shaders().back().uidLow(), 0xABCD);

  ASSERT_TRUE(a.connection().has_value());
  EXPECT_EQ(a.connection()->backend, "simulated");
  EXPECT_EQ(a.connection()->address, "/tmp/state.json");
  EXPECT_EQ(a.connection()->port, 8554);
  EXPECT_EQ(a.connection()->user, "operator");
  EXPECT_EQ(a.connection()->password, "secret");
  EXPECT_EQ(a.connection()->device, "cam-1");

  // The picture path is resolved against the camera file's folder and loaded.
  EXPECT_EQ(fs::path(a.imagePath()), fs::path(folder.dir.file("pictures/fruits.jpg")).lexically_normal());
  ASSERT_NE(a.image(), nullptr);
  EXPECT_THAT(Image::toMat(a.image()), Testing::PictureNear(Synthetic::loadSample("fruits.jpg"), 0));

  const auto* region = dynamic_cast<const OrbivaneGeometry::RegionBasedGeometry*>(camera.modules()[1]->geometry());
  ASSERT_NE(region, nullptr);
  EXPECT_EQ(region->region().right(), 2.0f);
  ASSERT_EQ(region->mesh().size(), 1u);
  EXPECT_EQ((*region->mesh().triangles)[0].b.x, 2.0f);
  EXPECT_EQ((*region->mesh().triangles)[0].c.v, 1.0f);
  EXPECT_EQ(camera.modules()[1]->image(), nullptr);
}

TEST(CameraFile, SavedFileLoadsBackTheSameCamera) {
  CameraFolder folder;
  const auto first = CameraDescription::loadCameraFile(folder.file);
  ASSERT_TRUE(first.hasValue()) << first.error();

  // Beside the original: the picture path is written relative to the file.
  const std::string beside = folder.dir.file("saved.json");
  const auto saved = CameraDescription::saveCameraFile(first.value(), beside);
  ASSERT_TRUE(saved.hasValue()) << saved.error();
  EXPECT_THAT(Synthetic::readText(beside), HasSubstr("\"pictures/fruits.jpg\""));
  const auto second = CameraDescription::loadCameraFile(beside);
  ASSERT_TRUE(second.hasValue()) << second.error();
  expectSameCamera(first.value(), second.value());

  // In another folder the relative path climbs out and still finds the picture.
  fs::create_directory(folder.dir.file("elsewhere"));
  const std::string deeper = folder.dir.file("elsewhere/camera.json");
  ASSERT_TRUE(CameraDescription::saveCameraFile(second.value(), deeper).hasValue());
  EXPECT_THAT(Synthetic::readText(deeper), HasSubstr("\"../pictures/fruits.jpg\""));
  const auto third = CameraDescription::loadCameraFile(deeper);
  ASSERT_TRUE(third.hasValue()) << third.error();
  expectSameCamera(first.value(), third.value());
  ASSERT_NE(third.value().modules()[0]->image(), nullptr);

  // Values that text cannot hold exactly in few digits survive as well.
  Orbivane camera = first.value();
  auto* geometry = camera.modules()[0]->matrixGeometry();
  Utils::Matrix4x4 odd;
  cv::RNG rng(8);
  for (int k = 0; k < 16; ++k) odd.set(k / 4, k % 4, static_cast<float>(rng.uniform(-1e3, 1e3) / 7.0));
  geometry->setMatrix(odd);
  camera.modules()[0]->setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(L"B", L"\u00C4", 1.0f / 3.0f));
  camera.modules()[0]->setExposureGain(1.0 / 3.0);
  camera.modules()[0]->setVignetting({0.1234567, -0.0421875});
  ASSERT_TRUE(CameraDescription::saveCameraFile(camera, beside).hasValue());
  const auto fourth = CameraDescription::loadCameraFile(beside);
  ASSERT_TRUE(fourth.hasValue()) << fourth.error();
  expectSameCamera(camera, fourth.value());
}

// Files people read and diff: what we write loads and saves to the same
// bytes, numbers are the shortest text of their single-precision value, a
// matrix is four rows of four, keys come in a fixed order; a negative zero
// (which JSON reads back as the integer 0) is written 0.
TEST(CameraFile, WrittenFilesAreReadableAndRoundTripToTheSameBytes) {
  CameraFolder folder;
  const auto loaded = CameraDescription::loadCameraFile(folder.file);
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  Orbivane camera = loaded.value();
  Utils::Matrix4x4 m;
  // A negative zero is written 0.
  const float values[16] = {0.4f, 1.0f / 3.0f, -0.0f, 1e-7f, -2.5f, 123456.79f, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  for (int k = 0; k < 16; ++k) m.set(k / 4, k % 4, values[k]);
  camera.modules()[0]->matrixGeometry()->setMatrix(m);

  const std::string first = folder.dir.file("first.json");
  ASSERT_TRUE(CameraDescription::saveCameraFile(camera, first).hasValue());
  const std::string text = Synthetic::readText(first);
  EXPECT_THAT(text, HasSubstr("\"matrix\": [\n"
                              "          0.4, 0.33333334, 0, 1e-07,\n"
                              "          -2.5, 123456.79, 0, 0,\n"
                              "          0, 0, 1, 0,\n"
                              "          0, 0, 0, 1\n"
                              "        ]"));
  EXPECT_THAT(text, HasSubstr("\"overlap\": 0.2\n"));
  EXPECT_THAT(text, HasSubstr("\"panoramaSize\": [4096, 1024]"));
  EXPECT_THAT(text, HasSubstr("[0, 0], [0.5, 0.1], [1, 0],\n"));  // a UV grid row per line
  // The fixed order of keys: the camera's, then a module's.
  const auto at = [&text](const char* key) { return text.find(std::string("\"") + key + "\":"); };
  EXPECT_LT(at("format"), at("version"));
  EXPECT_LT(at("version"), at("name"));
  EXPECT_LT(at("name"), at("panoramaSize"));
  EXPECT_LT(at("panoramaSize"), at("modules"));
  EXPECT_LT(at("image"), at("geometry"));
  EXPECT_LT(at("geometry"), at("shaders"));
  EXPECT_LT(at("shaders"), at("rotation"));
  EXPECT_LT(at("rotation"), at("connection"));

  // Loading what we wrote and saving it again gives the same bytes.
  const auto again = CameraDescription::loadCameraFile(first);
  ASSERT_TRUE(again.hasValue()) << again.error();
  const std::string second = folder.dir.file("second.json");
  ASSERT_TRUE(CameraDescription::saveCameraFile(again.value(), second).hasValue());
  EXPECT_EQ(Synthetic::readText(second), text);
  EXPECT_EQ(again.value().modules()[0]->matrixGeometry()->matrix(), m) << "every value read back exactly";
}

TEST(CameraFile, ACameraBuiltInCodeKeepsThePathsOfItsPictures) {
  Synthetic::TemporaryDirectory dir;
  fs::copy_file(Synthetic::samplePath("fruits.jpg"), dir.file("fruits.jpg"));
  const auto picture = Image::loadImage(dir.file("fruits.jpg"));
  ASSERT_TRUE(picture.hasValue());
  Orbivane camera;
  OrbivaneModule fromFile(L"F");
  fromFile.setImage(picture.value());
  camera.addModule(fromFile);
  OrbivaneModule inMemory(L"M");
  inMemory.setImage(Image::fromMat(cv::Mat(4, 4, CV_8UC3, cv::Scalar::all(9))));
  camera.addModule(inMemory);
  fs::create_directory(dir.file("out"));
  ASSERT_TRUE(CameraDescription::saveCameraFile(camera, dir.file("out/camera.json")).hasValue());
  const std::string text = Synthetic::readText(dir.file("out/camera.json"));
  EXPECT_THAT(text, HasSubstr("\"image\": \"../fruits.jpg\""));
  const auto loaded = CameraDescription::loadCameraFile(dir.file("out/camera.json"));
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  ASSERT_NE(loaded.value().findModule(L"F")->image(), nullptr);
  EXPECT_EQ(loaded.value().findModule(L"F")->image()->width(), picture.value()->width());
  EXPECT_EQ(loaded.value().findModule(L"M")->image(), nullptr) << "a picture made in memory has no file to name";
}

TEST(CameraFile, MinimalFileLoads) {
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeText(dir.file("min.json"), R"({"format":"orbivane-camera","version":1,"modules":[{"name":"A"}]})");
  const auto loaded = CameraDescription::loadCameraFile(dir.file("min.json"));
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  const Orbivane& camera = loaded.value();
  EXPECT_TRUE(camera.name().empty());
  EXPECT_TRUE(camera.panoramaSize().empty());
  ASSERT_EQ(camera.modules().size(), 1u);
  const OrbivaneModule& a = *camera.modules()[0];
  EXPECT_EQ(a.name(), L"A");
  EXPECT_EQ(a.rotation(), 0);
  EXPECT_EQ(a.geometry(), nullptr);
  EXPECT_EQ(a.linkage(), nullptr);
  EXPECT_EQ(a.image(), nullptr);
  EXPECT_TRUE(a.imagePath().empty());
  EXPECT_TRUE(a.shaders().empty());
  EXPECT_FALSE(a.connection().has_value());
  EXPECT_FALSE(a.fisheyeThreshold().has_value());
  EXPECT_EQ(a.neighbour(), nullptr);
  // And it saves and loads again.
  ASSERT_TRUE(CameraDescription::saveCameraFile(camera, dir.file("again.json")).hasValue());
  const auto again = CameraDescription::loadCameraFile(dir.file("again.json"));
  ASSERT_TRUE(again.hasValue()) << again.error();
  expectSameCamera(camera, again.value());
}

TEST(CameraFile, ErrorsNameTheFileThePathAndTheFault) {
  Synthetic::TemporaryDirectory dir;
  const std::string file = dir.file("broken.json");
  const auto fails = [&](const std::string& text, const std::string& where, const std::string& what) {
    const std::string error = loadError(dir, text);
    EXPECT_THAT(error, AllOf(HasSubstr(file), HasSubstr(where), HasSubstr(what))) << text;
  };
  fails(R"({"format": "orbivane-camera", "version": 1, "modules": [)", "", "not valid JSON");
  fails(R"({"format": "other-camera", "version": 1, "modules": []})", "/format", "orbivane-camera");
  fails(R"({"format": "orbivane-camera", "version": 2, "modules": []})", "/version", "not supported");
  fails(R"({"format": "orbivane-camera", "version": "1", "modules": []})", "/version", "integer");
  fails(R"({"format": "orbivane-camera", "version": 1})", "/", "missing key 'modules'");
  fails(R"({"format": "orbivane-camera", "version": 1, "modules": [], "extra": 1})", "/", "unknown key 'extra'");
  fails(oneModule(R"("imagee": "a.png")"), "/modules/0", "unknown key 'imagee'");
  fails(oneModule(R"("linkage": {"left": "B", "rigth": "C"})"), "/modules/0/linkage", "unknown key 'rigth'");
  fails(oneModule(R"("geometry": {"type": "matrix", "matrix": [1,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0]})"),
        "/modules/0/geometry/matrix", "expected 16 elements, got 15");
  fails(oneModule(R"("geometry": {"type": "matrix", "matrix": [1,0,0,"0", 0,1,0,0, 0,0,1,0, 0,0,0,1]})"),
        "/modules/0/geometry/matrix/3", "expected a number, got string");
  fails(oneModule(R"("geometry": {"type": "sphere"})"), "/modules/0/geometry/type", "unknown geometry type 'sphere'");
  fails(oneModule(R"("geometry": {"type": "matrix", "uvGrid": {"cols": 2, "rows": 1,
        "points": [[0, 0], [0.5, 0], [1, 0], [0, 1], [1, 1]]}})"),
        "/modules/0/geometry/uvGrid/points", "expected 6 elements, got 5");
  fails(oneModule(R"("rotation": 12.5)"), "/modules/0/rotation", "integer");
  fails(oneModule(R"("fisheyeThreshold": 300)"), "/modules/0/fisheyeThreshold", "from 0 to 255");
  fails(oneModule(R"("linkage": {"overlap": 1.5})"), "/modules/0/linkage/overlap", "0 to 1");
  fails(oneModule(R"("connection": {"port": 70000})"), "/modules/0/connection/port", "65535");
  fails(oneModule(R"("shaders": [{"uid": "0005007"}])"), "/modules/0/shaders/0/uid", "Invalid UID");
  fails(oneModule(R"("shaders": [{"uid": "0005zz07"}])"), "/modules/0/shaders/0/uid", "invalid stoul argument");
  fails(oneModule(R"("shaders": [{"uid": "00050007", "parameters": {"f_x": 1}}])"),
        "/modules/0/shaders/0/parameters/f_x", "expected a string");
  fails(oneModule(R"("neighbour": "Z")"), "/modules/0/neighbour", "no module named 'Z'");
  fails(oneModule(R"("vignetting": 0.2)"), "/modules/0/vignetting", "expected an object");
  fails(oneModule(R"("vignetting": {"r3": 0.2})"), "/modules/0/vignetting", "unknown key 'r3'");
  // Factors the viewer would multiply a corner (or, through the vertex, a
  // ring inside the picture) by: 0.1 and 4.2.
  fails(oneModule(R"("vignetting": {"r2": -0.9})"), "/modules/0/vignetting", "within 0.25 to 4");
  fails(oneModule(R"("vignetting": {"r2": 12.8, "r4": -16})"), "/modules/0/vignetting", "within 0.25 to 4");
  fails(R"({"format": "orbivane-camera", "version": 1, "modules": [{"name": "A"}, {"name": "A"}]})",
        "/modules/1/name", "a second module named 'A'");
  fails(R"({"format": "orbivane-camera", "version": 1, "modules": [{"name": ""}]})", "/modules/0/name", "empty");
  fails(R"({"format": "orbivane-camera", "version": 1, "modules": [{"rotation": 0}]})", "/modules/0",
        "missing key 'name'");
  fails(oneModule(R"("image": "pictures/nowhere.png")"), "/modules/0/image",
        fs::path(dir.file("pictures/nowhere.png")).lexically_normal().string());
  EXPECT_THAT(loadError(dir, oneModule(R"("image": "nowhere.png")")), HasSubstr("no such file"));

  const std::string absent = dir.file("absent.json");
  const auto missing = CameraDescription::loadCameraFile(absent);
  ASSERT_TRUE(missing.hasError());
  EXPECT_THAT(missing.error(), HasSubstr(absent));
}

TEST(CameraFile, SavingIsAtomic) {
  CameraFolder folder;
  const auto loaded = CameraDescription::loadCameraFile(folder.file);
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  Orbivane small;
  small.addModule(OrbivaneModule(L"Only"));

  // Saving over a longer file replaces it completely.
  const auto saved = CameraDescription::saveCameraFile(small, folder.file);
  ASSERT_TRUE(saved.hasValue()) << saved.error();
  EXPECT_EQ(Synthetic::readText(folder.file), CameraDescription::cameraToJson(small, folder.dir.path()));
  const auto reloaded = CameraDescription::loadCameraFile(folder.file);
  ASSERT_TRUE(reloaded.hasValue()) << reloaded.error();
  ASSERT_EQ(reloaded.value().modules().size(), 1u);
  EXPECT_EQ(reloaded.value().modules()[0]->name(), L"Only");

  // A folder that does not exist: an error naming the file, and nothing made.
  const std::string nowhere = folder.dir.file("no/such/folder/camera.json");
  const auto failed = CameraDescription::saveCameraFile(loaded.value(), nowhere);
  ASSERT_TRUE(failed.hasError());
  EXPECT_THAT(failed.error(), HasSubstr(nowhere));
  EXPECT_FALSE(fs::exists(folder.dir.file("no")));
  for (const auto& e : fs::directory_iterator(folder.dir.path())) {
    EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();
  }
}
