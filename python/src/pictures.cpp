// Pictures between numpy and the library: a picture kind that views a numpy
// array in place (so a cv2 picture reaches a calibrator without a copy), and
// arrays that view the library's pixels.
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bindings.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image/rgb_image.h"
#include "orbivane/image/yuv_image.h"

namespace OrbivanePython {
namespace {

// An RGB picture whose pixels are a numpy array's: BGR (mapping 0) or BGRA
// (mapping 1), pixels and channels packed, rows `stride` bytes apart. It holds
// a reference to the array; giving it up takes the GIL, since the library may
// drop the last copy of the picture on any thread.
class ArrayPicture final : public Image::RGBImageInterface {
 public:
  ArrayPicture(const py::array& array, int mapping)
      : owner_(array.ptr()),
        data_(static_cast<std::uint8_t*>(const_cast<void*>(array.data()))),
        width_(int(array.shape(1))),
        height_(int(array.shape(0))),
        mapping_(mapping),
        stride_(std::size_t(array.strides(0))) {
    Py_INCREF(owner_);
  }
  ~ArrayPicture() override {
    if (!Py_IsInitialized()) return;  // the interpreter is gone, and the array with it
    PyGILState_STATE state = PyGILState_Ensure();
    Py_DECREF(owner_);
    PyGILState_Release(state);
  }
  ArrayPicture(const ArrayPicture&) = delete;
  ArrayPicture& operator=(const ArrayPicture&) = delete;

  PyObject* owner() const { return owner_; }

  int width() const override { return width_; }
  int height() const override { return height_; }
  std::shared_ptr<Image::UniversalImageInterface> clone() const override {
    return std::make_shared<Image::RGBImage>(width_, height_, mapping_, data_, stride_);
  }
  int mapping() const override { return mapping_; }
  int channels() const override { return bytesPerPixel(mapping_); }
  const std::uint8_t* data() const override { return data_; }
  std::uint8_t* data() override { return data_; }
  std::size_t stride() const override { return stride_; }

  Image::RGBPixel pixel(int x, int y) const override { return decodePixel(data_ + offset(x, y), mapping_); }
  void setPixel(int x, int y, const Image::RGBPixel& p) override { encodePixel(p, data_ + offset(x, y), mapping_); }
  std::uint8_t alpha(int x, int y) const override {
    if (mapping_ != Image::kMappingBGRA) throw std::runtime_error("Image has no Alpha Channel");
    return data_[offset(x, y) + 3];
  }
  std::shared_ptr<Image::YUVImageInterface> yuvImage(int subsampling) const override {
    std::lock_guard<std::mutex> lock(yuvMutex_);
    if (!yuv_) {
      auto made = Image::YUVImage::fromRGB(*this, subsampling);
      made->setTimestamp(Image::currentTimeMilliseconds());
      yuv_ = made;
    }
    return yuv_;
  }

 private:
  std::size_t offset(int x, int y) const {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) throw std::out_of_range("pixel outside the picture");
    return std::size_t(y) * stride_ + std::size_t(x) * std::size_t(channels());
  }

  PyObject* owner_;
  std::uint8_t* data_;
  int width_, height_, mapping_;
  std::size_t stride_;
  mutable std::mutex yuvMutex_;
  mutable std::shared_ptr<Image::YUVImageInterface> yuv_;
};

std::string shapeText(const py::array& array) {
  std::string text = "(";
  for (py::ssize_t i = 0; i < array.ndim(); ++i) text += (i ? ", " : "") + std::to_string(array.shape(i));
  return text + (array.ndim() == 1 ? ",)" : ")");
}

py::array checkedArray(const py::handle& object, const std::string& what) {
  if (object.is_none()) throw py::value_error(what + ": no picture (None)");
  if (!py::isinstance<py::array>(object)) {
    throw py::type_error(what + ": expected a numpy array (H x W x 3 uint8 BGR or H x W grey), got " +
                         std::string(py::str(py::type::of(object).attr("__name__"))));
  }
  py::array array = py::reinterpret_borrow<py::array>(object);
  if (!py::isinstance<py::array_t<std::uint8_t>>(array)) {
    throw py::value_error(what + ": expected uint8 pixels, got " + std::string(py::str(array.dtype())));
  }
  const bool shapeOk = (array.ndim() == 2) ||
                       (array.ndim() == 3 && (array.shape(2) == 1 || array.shape(2) == 3 || array.shape(2) == 4));
  if (!shapeOk) {
    throw py::value_error(what + ": expected H x W x 3 (BGR), H x W x 4 (BGRA) or H x W (grey), got shape " +
                          shapeText(array));
  }
  if (array.shape(0) > INT32_MAX || array.shape(1) > INT32_MAX) throw py::value_error(what + ": picture too large");
  return array;
}

// Whether the array's pixels and channels are packed and its rows run forward.
bool packedPixels(const py::array& array) {
  const py::ssize_t channels = array.ndim() == 3 ? array.shape(2) : 1;
  if (array.ndim() == 3 && array.strides(2) != 1) return false;
  if (array.strides(1) != channels) return false;
  return array.strides(0) >= channels * array.shape(1);
}

}  // namespace

cv::Mat matFromArray(const py::handle& object, const std::string& what) {
  const py::array array = checkedArray(object, what);
  const int channels = array.ndim() == 3 ? int(array.shape(2)) : 1;
  if (array.shape(0) == 0 || array.shape(1) == 0) return cv::Mat();
  if (packedPixels(array)) {
    // A view: valid while the caller holds the array.
    return cv::Mat(int(array.shape(0)), int(array.shape(1)), CV_8UC(channels), const_cast<void*>(array.data()),
                   std::size_t(array.strides(0)));
  }
  const py::array packed = py::array::ensure(array, py::array::c_style | py::array::forcecast);
  return cv::Mat(int(packed.shape(0)), int(packed.shape(1)), CV_8UC(channels), const_cast<void*>(packed.data()),
                 std::size_t(packed.strides(0)))
      .clone();
}

std::shared_ptr<Image::UniversalImageInterface> pictureFromArray(const py::handle& object, const std::string& what) {
  py::array array = checkedArray(object, what);
  if (array.shape(0) == 0 || array.shape(1) == 0) {
    throw py::value_error(what + ": an empty picture (" + shapeText(array) + ")");
  }
  const int channels = array.ndim() == 3 ? int(array.shape(2)) : 1;
  if ((channels == 3 || channels == 4) && array.writeable() && packedPixels(array) && array.shape(0) > 0 &&
      array.shape(1) > 0) {
    return std::make_shared<ArrayPicture>(array, channels == 4 ? Image::kMappingBGRA : Image::kMappingBGR);
  }
  return Image::fromMat(matFromArray(array, what));
}

Images picturesFromDict(const py::dict& pictures) {
  Images images;
  for (const auto& item : pictures) {
    if (!py::isinstance<py::str>(item.first)) throw py::type_error("picture keys must be module names (str)");
    const std::string name = item.first.cast<std::string>();
    images[wide(name)] = pictureFromArray(item.second, "picture of module '" + name + "'");
  }
  return images;
}

Images modulePictures(const CameraDescription::Orbivane& camera) {
  Images images;
  for (const auto& module : camera.modules())
    if (module->image()) images[module->name()] = module->image();
  return images;
}

Images picturesOf(const CameraDescription::Orbivane& camera, const py::object& pictures) {
  return pictures.is_none() ? modulePictures(camera) : picturesFromDict(pictures.cast<py::dict>());
}

py::array arrayFromMat(const cv::Mat& mat) {
  if (mat.empty()) return py::array_t<std::uint8_t>(std::vector<py::ssize_t>{0, 0});
  auto* kept = new cv::Mat(mat);
  py::capsule owner(kept, [](void* p) { delete static_cast<cv::Mat*>(p); });
  const std::size_t element = mat.elemSize1();
  std::vector<py::ssize_t> shape{mat.rows, mat.cols}, strides{py::ssize_t(mat.step[0]), py::ssize_t(mat.elemSize())};
  if (mat.channels() > 1) {
    shape.push_back(mat.channels());
    strides.push_back(py::ssize_t(element));
  }
  py::dtype dtype;
  switch (mat.depth()) {
    case CV_8U: dtype = py::dtype::of<std::uint8_t>(); break;
    case CV_16S: dtype = py::dtype::of<std::int16_t>(); break;
    case CV_32S: dtype = py::dtype::of<std::int32_t>(); break;
    case CV_32F: dtype = py::dtype::of<float>(); break;
    case CV_64F: dtype = py::dtype::of<double>(); break;
    default: throw std::invalid_argument("arrayFromMat: unsupported matrix type " + cv::typeToString(mat.type()));
  }
  return py::array(dtype, shape, strides, kept->data, owner);
}

py::object arrayFromPicture(const std::shared_ptr<Image::UniversalImageInterface>& picture) {
  if (!picture) return py::none();
  if (const auto* own = dynamic_cast<const ArrayPicture*>(picture.get())) {
    return py::reinterpret_borrow<py::object>(own->owner());
  }
  const auto* rgb = dynamic_cast<const Image::RGBImageInterface*>(picture.get());
  if (rgb && rgb->mapping() == Image::kMappingBGR && !rgb->empty()) {
    // A view of the library's pixels; read-only, since cameras share their pictures.
    auto* kept = new std::shared_ptr<Image::UniversalImageInterface>(picture);
    py::capsule owner(kept, [](void* p) { delete static_cast<std::shared_ptr<Image::UniversalImageInterface>*>(p); });
    py::array view(py::dtype::of<std::uint8_t>(), {py::ssize_t(rgb->height()), py::ssize_t(rgb->width()), py::ssize_t(3)},
                   {py::ssize_t(rgb->stride()), py::ssize_t(3), py::ssize_t(1)}, rgb->data(), owner);
    py::detail::array_proxy(view.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return std::move(view);
  }
  return arrayFromMat(Image::toMat(picture));
}

void registerPictures(py::module_& m) {
  m.def(
      "load_picture",
      [](const std::string& path) {
        auto loaded = Image::loadImage(path);
        if (!loaded) throw LibraryError(loaded.error());
        return arrayFromPicture(loaded.value());
      },
      py::arg("path"),
      "Reads a picture file as the library does (any format OpenCV reads; 16-bit pictures scaled to 8 bits) and "
      "returns it as an H x W x 3 uint8 BGR array (H x W x 4 BGRA when the file has alpha).");
  m.def(
      "save_picture",
      [](const py::handle& picture, const std::string& path) {
        const cv::Mat mat = matFromArray(picture, "picture");
        Utils::ReturnState<bool, std::string> saved = true;
        {
          const LibraryCall release("Pictures");
          saved = Image::saveMat(mat, path);
        }
        if (!saved) throw LibraryError(saved.error());
      },
      py::arg("picture"), py::arg("path"),
      "Writes a uint8 picture (BGR, BGRA or grey) to a file atomically: the file appears whole or not at all.");
}

}  // namespace OrbivanePython
