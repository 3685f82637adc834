// veltrano._veltrano: the library's C interface (veltrano_c.h) on numpy arrays.
//
// Every function checks its arrays before the library sees them: the dtype picks the pixel type,
// the shape gives the size, and a wrong dtype, shape, memory layout or a read-only output raises
// TypeError or ValueError naming the argument. Results come back as new arrays (a fresh output
// starts as a copy of the source where it has the source's dtype and shape, else as zeros) or
// are written into `out`, which may be the source itself for the functions that work in place.
// A failure code of the library raises veltrano.VeltranoError. The GIL is released while the
// library works.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dynamic_library.h"
#include "veltrano_c.h"

namespace py = pybind11;
using namespace pybind11::literals;

namespace {

// ---------------------------------------------------------------------------------------------
// Errors

py::object& ErrorClass(const char* name) {
    static std::map<std::string, py::object> classes;
    py::object& cls = classes[name];
    if (!cls) cls = py::module_::import("veltrano._errors").attr(name);
    return cls;
}

[[noreturn]] void RaiseLibraryError(const char* function, int code) {
    py::object error = ErrorClass("VeltranoError")(function, code, std::string(vt_last_error()));
    PyErr_SetObject(error.get_type().ptr(), error.ptr());
    throw py::error_already_set();
}

bool Negative(int code) { return code < 0; }

// Raises unless the library's result is a success by `fails`.
void Check(const char* function, int code, bool (*fails)(int) = Negative) {
    if (fails(code)) RaiseLibraryError(function, code);
}

template <class... Args>
std::string Format(const char* format, Args... args) {
    char text[512];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

// ---------------------------------------------------------------------------------------------
// Pixel types

enum Code : int {
    U8 = VT_PIX_8U,
    U16 = VT_PIX_16U,
    S16 = VT_PIX_16S,
    F32 = VT_PIX_32F,
    S32 = VT_PIX_32S,
    F64 = VT_PIX_64F
};

py::dtype DtypeOf(int code) {
    switch (code) {
    case U8:
        return py::dtype::of<uint8_t>();
    case U16:
        return py::dtype::of<uint16_t>();
    case S16:
        return py::dtype::of<int16_t>();
    case F32:
        return py::dtype::of<float>();
    case S32:
        return py::dtype::of<int32_t>();
    default:
        return py::dtype::of<double>();
    }
}

const char* NameOf(int code) {
    switch (code) {
    case U8:
        return "uint8";
    case U16:
        return "uint16";
    case S16:
        return "int16";
    case F32:
        return "float32";
    case S32:
        return "int32";
    default:
        return "float64";
    }
}

// The code of a native-endian dtype of ours, or 0.
int CodeOf(const py::dtype& dtype) {
    if (!py::cast<bool>(dtype.attr("isnative"))) return 0;
    for (int code : {U8, U16, S16, F32, S32, F64}) {
        if (dtype.num() == DtypeOf(code).num()) return code;
    }
    return 0;
}

std::string Names(const std::vector<int>& codes) {
    std::string text;
    for (size_t i = 0; i < codes.size(); ++i) {
        text += (i == 0                  ? ""
                 : i + 1 == codes.size() ? " or "
                                         : ", ") +
                std::string(NameOf(codes[i]));
    }
    return text;
}

// ---------------------------------------------------------------------------------------------
// Array arguments

struct Image {
    py::array array;
    int code = 0;
    int height = 0, width = 0, channels = 1;

    void* data() const { return const_cast<void*>(array.data()); }
    template <class T>
    T* as() const {
        return static_cast<T*>(data());
    }
    std::vector<py::ssize_t> shape() const {
        std::vector<py::ssize_t> s{height, width};
        if (channels > 1) s.push_back(channels);
        return s;
    }
    const char* begin() const { return static_cast<const char*>(array.data()); }
    const char* end() const { return begin() + array.nbytes(); }
};

std::string ShapeText(const std::vector<py::ssize_t>& shape) {
    std::string text = "(";
    for (size_t i = 0; i < shape.size(); ++i) text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

// Checks an image argument: a numpy array of one of the dtypes in `codes`, 2-D (or 3-D with 3 or
// 4 channels when `allowChannels`), C-contiguous, with sizes the library's int arguments hold.
Image ImageArg(py::handle object, const char* name, const std::vector<int>& codes,
               bool allowChannels = false) {
    if (!py::isinstance<py::array>(object)) {
        throw py::type_error(
            Format("%s must be a numpy array, not %s", name, Py_TYPE(object.ptr())->tp_name));
    }
    Image image;
    image.array = py::reinterpret_borrow<py::array>(object);
    image.code = CodeOf(image.array.dtype());
    if (std::find(codes.begin(), codes.end(), image.code) == codes.end()) {
        throw py::type_error(
            Format("%s must have dtype %s, not %s", name, Names(codes).c_str(),
                   py::str(py::handle(image.array.dtype())).cast<std::string>().c_str()));
    }
    const py::ssize_t ndim = image.array.ndim();
    if (ndim != 2 && !(allowChannels && ndim == 3)) {
        throw py::value_error(Format("%s must be a 2-D array (height, width)%s, not %d-D", name,
                                     allowChannels ? " or (height, width, channels)" : "",
                                     static_cast<int>(ndim)));
    }
    if (ndim == 3 && image.array.shape(2) != 3 && image.array.shape(2) != 4) {
        throw py::value_error(Format("%s must have 3 or 4 channels, not %d", name,
                                     static_cast<int>(image.array.shape(2))));
    }
    if (!(image.array.flags() & py::array::c_style)) {
        throw py::value_error(
            Format("%s must be C-contiguous (numpy.ascontiguousarray makes a copy that is)", name));
    }
    const py::ssize_t height = image.array.shape(0), width = image.array.shape(1);
    if (height > INT_MAX || width > INT_MAX || image.array.size() > INT_MAX) {
        throw py::value_error(Format("%s is too large: at most %d pixels", name, INT_MAX));
    }
    image.height = static_cast<int>(height);
    image.width = static_cast<int>(width);
    image.channels = ndim == 3 ? static_cast<int>(image.array.shape(2)) : 1;
    return image;
}

bool Overlap(const Image& a, const Image& b) { return a.begin() < b.end() && b.begin() < a.end(); }

// A second input that must match the image's shape (and dtype, when `code` is given).
Image Companion(py::handle object, const char* name, const Image& like, std::vector<int> codes) {
    Image image = ImageArg(object, name, codes, like.channels > 1);
    if (image.shape() != like.shape()) {
        throw py::value_error(Format("%s must have the shape %s of src, not %s", name,
                                     ShapeText(like.shape()).c_str(),
                                     ShapeText(image.shape()).c_str()));
    }
    return image;
}

// The output: a new array (a copy of the source where dtype and shape are the source's, else
// zeros) or the caller's `out`, which must have that dtype and shape, be writeable, and be
// either the very source buffer or apart from it.
Image Output(py::handle out, const Image& src, int code, const std::vector<py::ssize_t>& shape,
             const char* name = "out") {
    if (out.is_none()) {
        Image image = src;
        image.code = code;
        image.height = static_cast<int>(shape[0]);
        image.width = static_cast<int>(shape[1]);
        if (code == src.code && shape == src.shape()) {
            image.array = py::array(src.array.attr("copy")());
        } else {
            image.array = py::array(DtypeOf(code), shape);
            std::memset(image.array.mutable_data(), 0, image.array.nbytes());
        }
        return image;
    }
    Image image = ImageArg(out, name, {code}, shape.size() == 3);
    if (image.shape() != shape) {
        throw py::value_error(Format("%s must have the shape %s, not %s", name,
                                     ShapeText(shape).c_str(), ShapeText(image.shape()).c_str()));
    }
    if (!image.array.writeable()) {
        throw py::value_error(Format("%s is read-only", name));
    }
    if (image.begin() != src.begin() && Overlap(image, src)) {
        throw py::value_error(Format("%s overlaps src without being the same array", name));
    }
    return image;
}

Image Output(py::handle out, const Image& src) { return Output(out, src, src.code, src.shape()); }

// A path argument: str, bytes or os.PathLike, in the file system's encoding.
std::string PathArg(py::handle path) {
    return py::bytes(py::module_::import("os").attr("fsencode")(path)).cast<std::string>();
}

// Runs the library call without the GIL.
template <class F>
int Unlocked(F&& call) {
    py::gil_scoped_release unlocked;
    return call();
}

// ---------------------------------------------------------------------------------------------
// Parameter records: the C structures as Python classes with one attribute per field, keyword
// construction, load and save.

template <class T>
class Record {
public:
    Record(py::module_& module, const char* name, int (*init)(T*), const char* doc)
        : name_(name), init_(init), cls_(module, name, doc), fields_(std::make_shared<Fields>()) {}

    template <class F>
    Record& field(const char* name, F T::*member) {
        cls_.def_readwrite(name, member);
        fields_->names.push_back(name);
        fields_->set[name] = [member](T& record, py::handle value) {
            record.*member = value.cast<F>();
        };
        return *this;
    }

    Record& persisted(int (*load)(T*, const char*), int (*save)(const T*, const char*),
                      const char* loadDoc, const char* saveDoc) {
        const char* name = name_;
        cls_.def(
            "load",
            [load, name](T& self, py::handle path) {
                const std::string file = PathArg(path);
                Check(name, load(&self, file.c_str()));
            },
            "path"_a, loadDoc);
        cls_.def(
            "save",
            [save, name](const T& self, py::handle path) {
                const std::string file = PathArg(path);
                Check(name, save(&self, file.c_str()));
            },
            "path"_a, saveDoc);
        return *this;
    }

    void finish() {
        auto fields = fields_;
        auto init = init_;
        const std::string name = name_;
        cls_.def(py::init([fields, init, name](py::kwargs kwargs) {
                     T record{};
                     Check(name.c_str(), init(&record));
                     for (auto item : kwargs) {
                         const std::string key = py::str(item.first);
                         auto setter = fields->set.find(key);
                         if (setter == fields->set.end()) {
                             throw py::type_error(
                                 Format("%s has no field '%s'", name.c_str(), key.c_str()));
                         }
                         setter->second(record, item.second);
                     }
                     return record;
                 }),
                 "Defaults, with any field given by keyword.");
        cls_.def("__repr__", [fields, name](py::handle self) {
            std::string text = name + "(";
            for (size_t i = 0; i < fields->names.size(); ++i) {
                text += (i ? ", " : "") + fields->names[i] + "=" +
                        py::repr(self.attr(fields->names[i].c_str())).template cast<std::string>();
            }
            return text + ")";
        });
        cls_.def("__eq__", [fields](py::handle self, py::handle other) -> py::object {
            if (!py::type::of(self).is(py::type::of(other)))
                return py::reinterpret_borrow<py::object>(Py_NotImplemented);
            for (const std::string& field : fields->names) {
                if (!self.attr(field.c_str()).equal(other.attr(field.c_str())))
                    return py::bool_(false);
            }
            return py::bool_(true);
        });
        cls_.attr("__hash__") = py::none();
        py::tuple names(fields->names.size());
        for (size_t i = 0; i < fields->names.size(); ++i) names[i] = py::str(fields->names[i]);
        cls_.attr("fields") = names;
    }

private:
    struct Fields {
        std::vector<std::string> names;
        std::map<std::string, std::function<void(T&, py::handle)>> set;
    };
    const char* name_;
    int (*init_)(T*);
    py::class_<T> cls_;
    std::shared_ptr<Fields> fields_;
};

void BindRecords(py::module_& m) {
    Record<vt_claheParam>(m, "claheParam", vt_claheParam_init,
                          "CLAHE settings (clahe, clahe_Manual).")
        .field("widthBlockNum", &vt_claheParam::widthBlockNum)
        .field("heightBlockNum", &vt_claheParam::heightBlockNum)
        .field("histBin", &vt_claheParam::histBin)
        .field("peak", &vt_claheParam::peak)
        .field("binScale", &vt_claheParam::binScale)
        .field("outMax", &vt_claheParam::outMax)
        .persisted(vt_claheParam_load, vt_claheParam_save,
                   "Reads nothing: resets the four settings to 8, 8, 256 and 600, as the library's "
                   "record does.",
                   "Writes the four settings to the section \"claheParam\".")
        .finish();
    Record<vt_struClaheParam>(m, "struClaheParam", vt_struClaheParam_init,
                              "CLAHE settings of the post-processing chain.")
        .field("widthBlockNum", &vt_struClaheParam::widthBlockNum)
        .field("heightBlockNum", &vt_struClaheParam::heightBlockNum)
        .field("histBin", &vt_struClaheParam::histBin)
        .field("peak", &vt_struClaheParam::peak)
        .field("binScale", &vt_struClaheParam::binScale)
        .field("outMax", &vt_struClaheParam::outMax)
        .field("sectionIndex", &vt_struClaheParam::sectionIndex)
        .persisted(
            vt_struClaheParam_load, vt_struClaheParam_save,
            "Resets to 8, 8, 256, 600, then reads param1..param4 (peak, histBin, widthBlockNum, "
            "heightBlockNum) of the section \"Post_Process_Param_<sectionIndex>\".",
            "Writes the four settings under their own names to the section \"struClaheParam\".")
        .finish();
    Record<vt_clipParam>(m, "clipParam", vt_clipParam_init, "Edge margins of edgeClip.")
        .field("up", &vt_clipParam::up)
        .field("down", &vt_clipParam::down)
        .field("left", &vt_clipParam::left)
        .field("right", &vt_clipParam::right)
        .persisted(vt_clipParam_load, vt_clipParam_save, "Reads the section \"clipParam\".",
                   "Writes the section \"clipParam\".")
        .finish();
    Record<vt_struAceGammaParam>(m, "struAceGammaParam", vt_struAceGammaParam_init,
                                 "Ace_Gamma settings.")
        .field("param1", &vt_struAceGammaParam::param1)
        .field("param2", &vt_struAceGammaParam::param2)
        .field("param3", &vt_struAceGammaParam::param3)
        .field("param4", &vt_struAceGammaParam::param4)
        .field("param5", &vt_struAceGammaParam::param5)
        .field("param6", &vt_struAceGammaParam::param6)
        .field("sectionIndex", &vt_struAceGammaParam::sectionIndex)
        .persisted(vt_struAceGammaParam_load, vt_struAceGammaParam_save,
                   "Reads param1..param6 of the section \"Post_Process_Param_<sectionIndex>\".",
                   "Writes param1..param6 to the section \"Post_Process_Param_<sectionIndex>\".")
        .finish();
    Record<vt_struBilatralParam>(m, "struBilatralParam", vt_struBilatralParam_init,
                                 "Bilateral filter settings.")
        .field("k_w", &vt_struBilatralParam::k_w)
        .field("k_h", &vt_struBilatralParam::k_h)
        .field("sigColor_x", &vt_struBilatralParam::sigColor_x)
        .field("sigColor_y", &vt_struBilatralParam::sigColor_y)
        .field("sigSpace_x", &vt_struBilatralParam::sigSpace_x)
        .field("sigSpace_y", &vt_struBilatralParam::sigSpace_y)
        .persisted(vt_struBilatralParam_load, vt_struBilatralParam_save,
                   "Reads the section \"struBilatralParam\".",
                   "Writes the section \"struBilatralParam\".")
        .finish();
    Record<vt_struFastNLMParam>(m, "struFastNLMParam", vt_struFastNLMParam_init,
                                "Non-local-means settings.")
        .field("rd", &vt_struFastNLMParam::rd)
        .field("rD", &vt_struFastNLMParam::rD)
        .field("h", &vt_struFastNLMParam::h)
        .persisted(vt_struFastNLMParam_load, vt_struFastNLMParam_save,
                   "Reads the section \"struFastNLMParam\".",
                   "Writes the section \"struFastNLMParam\".")
        .finish();
    Record<vt_struUSMParam>(m, "struUSMParam", vt_struUSMParam_init,
                            "Unsharp-masking settings (USM_EX).")
        .field("r", &vt_struUSMParam::r)
        .field("isNeedNorm", &vt_struUSMParam::isNeedNorm)
        .field("lam", &vt_struUSMParam::lam)
        .persisted(
            vt_struUSMParam_load, vt_struUSMParam_save,
            "Reads the section \"struFastNLMParam\", where these settings have always lived.",
            "Writes the section \"struFastNLMParam\".")
        .finish();
    Record<vt_struWLNParam>(m, "struWLNParam", vt_struWLNParam_init,
                            "Window-levelling settings (WLN).")
        .field("wl", &vt_struWLNParam::wl)
        .field("wr", &vt_struWLNParam::wr)
        .field("specifymin", &vt_struWLNParam::specifymin)
        .field("specifymax", &vt_struWLNParam::specifymax)
        .persisted(vt_struWLNParam_load, vt_struWLNParam_save, "Reads the section \"WLNParam\".",
                   "Writes the section \"WLNParam\".")
        .finish();
    Record<vt_struImageBaseParam>(m, "struImageBaseParam", vt_struImageBaseParam_init,
                                  "Basic display settings of an image; never loaded or saved.")
        .field("offset", &vt_struImageBaseParam::offset)
        .field("gain", &vt_struImageBaseParam::gain)
        .field("gamma", &vt_struImageBaseParam::gamma)
        .field("width", &vt_struImageBaseParam::width)
        .field("height", &vt_struImageBaseParam::height)
        .finish();
}

// ---------------------------------------------------------------------------------------------
// Processing functions

const std::vector<int> kAllTypes{U8, U16, S16, F32, S32, F64};

// A 2-D float kernel (kernel rows, kernel columns from its shape).
Image KernelArg(py::handle kernel, const char* name = "kernel") {
    return ImageArg(kernel, name, {F32});
}

void BindPointOperations(py::module_& m) {
    m.def(
        "normalize",
        [](py::handle src_, double low, double high, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32, F64});
            const Image out = Output(out_, src);
            const uint32_t w = src.width, h = src.height;
            int code = 0;
            switch (src.code) {
            case U8:
                code = Unlocked([&] {
                    return vt_normalize_8U(src.as<uint8_t>(), out.as<uint8_t>(), w, h,
                                           static_cast<uint8_t>(low), static_cast<uint8_t>(high));
                });
                break;
            case U16:
                code = Unlocked([&] {
                    return vt_normalize_16U(src.as<uint16_t>(), out.as<uint16_t>(), w, h,
                                            static_cast<uint16_t>(low),
                                            static_cast<uint16_t>(high));
                });
                break;
            case F32:
                code = Unlocked([&] {
                    return vt_normalize_32F(src.as<float>(), out.as<float>(), w, h,
                                            static_cast<float>(low), static_cast<float>(high));
                });
                break;
            default:
                code = Unlocked([&] {
                    return vt_normalize_64F(src.as<double>(), out.as<double>(), w, h, low, high);
                });
            }
            Check("normalize", code);
            return out.array;
        },
        "src"_a, "low"_a, "high"_a, py::kw_only(), "out"_a = py::none(),
        "Stretches the image's own minimum..maximum onto [low, high] (normalize_8U/16U/32F/64F).");

    m.def(
        "Normalize_TruncMinMax",
        [](py::handle src_, py::handle out_) {
            const Image src = ImageArg(src_, "src", kAllTypes);
            const Image out = Output(out_, src);
            Check("Normalize_TruncMinMax", Unlocked([&] {
                      return vt_Normalize_TruncMinMax(src.as<uint8_t>(), out.as<uint8_t>(),
                                                      src.width, src.height, 0, src.code);
                  }));
            return out.array;
        },
        "src"_a, py::kw_only(), "out"_a = py::none(),
        "Kept for hosts that call it: changes nothing.");

    m.def(
        "Inverse",
        [](py::handle src_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16, S16});
            const Image out = Output(out_, src);
            Check("Inverse", Unlocked([&] {
                      return vt_Inverse(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                        src.height, src.code);
                  }));
            return out.array;
        },
        "src"_a, py::kw_only(), "out"_a = py::none(),
        "65535 - src on 16-bit words; uint16 (code 4) is refused with -3, as in the library.");

    m.def(
        "BrigntAndContrast",
        [](py::handle src_, float brightness, float contrast, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            const Image out = Output(out_, src);
            Check("BrigntAndContrast", Unlocked([&] {
                      return vt_BrigntAndContrast(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                                  src.height, src.code, brightness, contrast);
                  }));
            return out.array;
        },
        "src"_a, "brightness"_a, "contrast"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "GammaCorrect",
        [](py::handle src_, float gamma, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16, F32});
            const Image out = Output(out_, src);
            Check("GammaCorrect", Unlocked([&] {
                      return vt_GammaCorrect(src.data(), out.data(), src.width, src.height, gamma,
                                             src.code);
                  }));
            return out.array;
        },
        "src"_a, "gamma"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "Image_Log",
        [](py::handle src_, int negate, py::handle out_) {
            const Image src = ImageArg(src_, "src", {F32});
            const Image out = Output(out_, src);
            Check("Image_Log", Unlocked([&] {
                      return vt_Image_Log(src.as<float>(), out.as<float>(), src.width, src.height,
                                          negate);
                  }));
            return out.array;
        },
        "src"_a, "negate"_a = 0, py::kw_only(), "out"_a = py::none(),
        "ln(max(src, 20)), negated when negate is 1.");

    m.def(
        "Image_Square_NoTrunc",
        [](py::handle src_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16, F32, S32});
            const Image out = Output(out_, src, F64, src.shape());
            Check("Image_Square_NoTrunc", Unlocked([&] {
                      return vt_Image_Square_NoTrunc(src.data(), out.as<double>(), src.width,
                                                     src.height, src.code);
                  }));
            return out.array;
        },
        "src"_a, py::kw_only(), "out"_a = py::none(), "src squared, as float64.");

    m.def(
        "ThresholdBinary",
        [](py::handle src_, double threshold, uint32_t mode, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16});
            const Image out = Output(out_, src);
            Check("ThresholdBinary", Unlocked([&] {
                      return vt_ThresholdBinary(src.as<uint16_t>(), out.as<uint16_t>(), src.code,
                                                src.width, src.height, threshold, mode);
                  }));
            return out.array;
        },
        "src"_a, "threshold"_a, "mode"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "ImgGainCorrect",
        [](py::handle src_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {F32});
            const Image out = Output(out_, src);
            Check("ImgGainCorrect", Unlocked([&] {
                      return vt_ImgGainCorrect(src.as<float>(), out.as<float>(), src.width,
                                               src.height);
                  }));
            return out.array;
        },
        "src"_a, py::kw_only(), "out"_a = py::none(),
        "Flat-field gain map: mean / max(src, 0.001).");

    m.def(
        "EquHist",
        [](py::handle src_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16});
            const Image out = Output(out_, src);
            Check("EquHist", Unlocked([&] {
                      return vt_EquHist(src.as<uint16_t>(), out.as<uint16_t>(),
                                        src.width * src.height, src.code);
                  }));
            return out.array;
        },
        "src"_a, py::kw_only(), "out"_a = py::none());
}

bool NotOne(int code) { return code != 1; }

void BindContrast(py::module_& m) {
    m.def(
        "clahe",
        [](py::handle src_, vt_claheParam& param, py::handle iniPath, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32, F64});
            const Image out = Output(out_, src);
            const std::string ini = PathArg(iniPath);
            int code = 0;
            switch (src.code) {
            case U8:
                code = Unlocked([&] {
                    return vt_clahe_8U(src.as<uint8_t>(), out.as<uint8_t>(), src.width, src.height,
                                       &param, ini.c_str());
                });
                break;
            case U16:
                code = Unlocked([&] {
                    return vt_clahe_16U(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                        src.height, &param, ini.c_str());
                });
                break;
            case F32:
                code = Unlocked([&] {
                    return vt_clahe_32F(src.as<float>(), out.as<float>(), src.width, src.height,
                                        &param, ini.c_str());
                });
                break;
            default:
                code = Unlocked([&] {
                    return vt_clahe_64F(src.as<double>(), out.as<double>(), src.width, src.height,
                                        &param, ini.c_str());
                });
            }
            Check("clahe", code, NotOne);
            return out.array;
        },
        "src"_a, "param"_a, "ini_path"_a = "", py::kw_only(), "out"_a = py::none(),
        "Contrast-limited adaptive histogram equalisation; updates param (histBin, binScale, "
        "outMax).");

    m.def(
        "clahe_Manual",
        [](py::handle src_, int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin,
           int32_t peak, py::handle iniPath, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32, F64});
            const Image out = Output(out_, src);
            const std::string ini = PathArg(iniPath);
            const int32_t w = src.width, h = src.height;
            int code = 0;
            switch (src.code) {
            case U8:
                code = Unlocked([&] {
                    return vt_clahe_8U_Manual(src.as<uint8_t>(), out.as<uint8_t>(), w, h,
                                              widthBlockNum, heightBlockNum, histBin, peak,
                                              ini.c_str());
                });
                break;
            case U16:
                code = Unlocked([&] {
                    return vt_clahe_16U_Manual(src.as<uint16_t>(), out.as<uint16_t>(), w, h,
                                               widthBlockNum, heightBlockNum, histBin, peak,
                                               ini.c_str());
                });
                break;
            case F32:
                code = Unlocked([&] {
                    return vt_clahe_32F_Manual(src.as<float>(), out.as<float>(), w, h,
                                               widthBlockNum, heightBlockNum, histBin, peak,
                                               ini.c_str());
                });
                break;
            default:
                code = Unlocked([&] {
                    return vt_clahe_64F_Manual(src.as<double>(), out.as<double>(), w, h,
                                               widthBlockNum, heightBlockNum, histBin, peak,
                                               ini.c_str());
                });
            }
            Check("clahe_Manual", code, NotOne);
            return out.array;
        },
        "src"_a, "widthBlockNum"_a, "heightBlockNum"_a, "histBin"_a, "peak"_a, "ini_path"_a = "",
        py::kw_only(), "out"_a = py::none());

    m.def(
        "AdaptiveContrastEnhancement",
        [](py::handle src_, int32_t radius, float alpha, float maxGain, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16});
            const Image out = Output(out_, src);
            Check("AdaptiveContrastEnhancement", Unlocked([&] {
                      return vt_AdaptiveContrastEnhancement(src.as<uint16_t>(), out.as<uint16_t>(),
                                                            src.width, src.height, src.code, radius,
                                                            alpha, maxGain);
                  }));
            return out.array;
        },
        "src"_a, "radius"_a, "alpha"_a, "maxGain"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "AdaptiveContrastEnhancementQuick",
        [](py::handle src_, int32_t radius, float alpha, float maxGain, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16, F32});
            const Image out = Output(out_, src);
            Check("AdaptiveContrastEnhancementQuick", Unlocked([&] {
                      return vt_AdaptiveContrastEnhancementQuick(
                          src.as<uint16_t>(), out.as<uint16_t>(), src.width, src.height, src.code,
                          radius, alpha, maxGain);
                  }));
            return out.array;
        },
        "src"_a, "radius"_a, "alpha"_a, "maxGain"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "Ace_Gamma",
        [](py::handle src_, vt_struAceGammaParam& param, py::handle iniPath, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16, F32});
            const Image out = Output(out_, src);
            const std::string ini = PathArg(iniPath);
            Check("Ace_Gamma", Unlocked([&] {
                      return vt_Ace_Gamma(src.as<uint16_t>(), out.data(), src.width, src.height,
                                          src.code, &param, ini.c_str());
                  }));
            return out.array;
        },
        "src"_a, "param"_a, "ini_path"_a = "", py::kw_only(), "out"_a = py::none());

    m.def(
        "WLN",
        [](py::handle src_, vt_struWLNParam& param, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            const Image out = Output(out_, src);
            Check("WLN", Unlocked([&] {
                      return vt_WLN(src.as<uint16_t>(), out.as<uint16_t>(), src.width, src.height,
                                    &param);
                  }));
            return out.array;
        },
        "src"_a, "param"_a, py::kw_only(), "out"_a = py::none());
}

void BindFilters(py::module_& m) {
    m.def(
        "filter2D",
        [](py::handle src_, py::handle kernel_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32});
            const Image kernel = KernelArg(kernel_);
            const Image out = Output(out_, src);
            const int kh = kernel.height, kw = kernel.width;
            int code = 0;
            switch (src.code) {
            case U8:
                code = Unlocked([&] {
                    return vt_filter2D_8U(src.as<uint8_t>(), out.as<uint8_t>(), src.width,
                                          src.height, kernel.as<float>(), kw, kh);
                });
                break;
            case U16:
                code = Unlocked([&] {
                    return vt_filter2D_16U(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                           src.height, kernel.as<float>(), kh, kw);
                });
                break;
            default:
                code = Unlocked([&] {
                    return vt_filter2D_32F(src.as<float>(), out.as<float>(), src.width, src.height,
                                           kernel.as<float>(), kw, kh);
                });
            }
            Check("filter2D", code);
            return out.array;
        },
        "src"_a, "kernel"_a, py::kw_only(), "out"_a = py::none(),
        "Correlation with a float32 kernel of shape (rows, columns); uint8 leaves out as it was, "
        "as in the library.");

    m.def(
        "getGaussker",
        [](int kw, int kh, double sigmaX, double sigmaY, py::handle dtype) {
            const py::dtype type = py::dtype::from_args(py::reinterpret_borrow<py::object>(dtype));
            const int code = CodeOf(type);
            if (code != F32 && code != F64) {
                throw py::type_error(Format("dtype must be float32 or float64, not %s",
                                            py::str(py::handle(type)).cast<std::string>().c_str()));
            }
            py::array kernel(type, std::vector<py::ssize_t>{kh > 0 ? kh : 0, kw > 0 ? kw : 0});
            std::memset(kernel.mutable_data(), 0, kernel.nbytes());
            void* data = kernel.mutable_data();
            Check("getGaussker",
                  code == F32
                      ? vt_getGaussker_32F(static_cast<float*>(data), kw, kh, sigmaX, sigmaY)
                      : vt_getGaussker_64F(static_cast<double*>(data), kw, kh, sigmaX, sigmaY));
            return kernel;
        },
        "kw"_a, "kh"_a, "sigmaX"_a, "sigmaY"_a, "dtype"_a = py::dtype::of<float>(),
        "Normalised Gaussian kernel of shape (kh, kw).");

    m.def(
        "gaussFilter",
        [](py::handle src_, int ksize1, int ksize2, double sigmaX, double sigmaY, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32});
            const Image out = Output(out_, src);
            int code = 0;
            switch (src.code) {
            case U8:
                code = Unlocked([&] {
                    return vt_gaussFilter_8U(src.as<uint8_t>(), out.as<uint8_t>(), src.width,
                                             src.height, ksize1, ksize2, sigmaX, sigmaY);
                });
                break;
            case U16:
                code = Unlocked([&] {
                    return vt_gaussFilter_16U(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                              src.height, ksize1, ksize2, sigmaX, sigmaY);
                });
                break;
            default:
                code = Unlocked([&] {
                    return vt_gaussFilter_32F(src.as<float>(), out.as<float>(), src.width,
                                              src.height, ksize1, ksize2, sigmaX, sigmaY);
                });
            }
            Check("gaussFilter", code);
            return out.array;
        },
        "src"_a, "ksize1"_a, "ksize2"_a, "sigmaX"_a, "sigmaY"_a, py::kw_only(),
        "out"_a = py::none());

    m.def(
        "Box_Filter",
        [](py::handle src_, int radius, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16, F32, F64});
            const Image out = Output(out_, src);
            Check("Box_Filter", Unlocked([&] {
                      return vt_Box_Filter(src.data(), out.data(), src.width, src.height, src.code,
                                           radius);
                  }));
            return out.array;
        },
        "src"_a, "radius"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "Median_Blur",
        [](py::handle src_, int radius, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, S16, F32});
            const Image out = Output(out_, src);
            Check("Median_Blur", Unlocked([&] {
                      return vt_Median_Blur(src.data(), out.data(), src.width, src.height, radius,
                                            src.code);
                  }));
            return out.array;
        },
        "src"_a, "radius"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "bilateralFilter",
        [](py::handle src_, vt_struBilatralParam& param, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16, F32});
            const Image out = Output(out_, src);
            const int code = src.code == F32 ? Unlocked([&] {
                return vt_bilateralFilter_32F(src.as<float>(), out.as<float>(), src.width,
                                              src.height, &param);
            })
                                             : Unlocked([&] {
                                                   return vt_bilateralFilter_16U(
                                                       src.as<uint16_t>(), out.as<uint16_t>(),
                                                       src.width, src.height, &param);
                                               });
            Check("bilateralFilter", code);
            return out.array;
        },
        "src"_a, "param"_a, py::kw_only(), "out"_a = py::none(),
        "bilateralFilter_32F for float32; uint16 reaches bilateralFilter_16U, which changes "
        "nothing.");

    m.def(
        "FastNLM",
        [](py::handle src_, float h, int p, int s, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8});
            const Image out = Output(out_, src);
            Check("FastNLM", Unlocked([&] {
                      return vt_FastNLM(src.as<uint8_t>(), out.as<uint8_t>(), src.width, src.height,
                                        h, p, s);
                  }));
            return out.array;
        },
        "src"_a, "h"_a, "p"_a, "s"_a, py::kw_only(), "out"_a = py::none());
}

void BindRepairAndGeometry(py::module_& m) {
    m.def(
        "ImgFix",
        [](py::handle src_, py::handle map_, int radius, int maxPasses, py::handle out_) {
            const Image src = ImageArg(src_, "src", {F32});
            const Image map = Companion(map_, "defect_map", src, {F32});
            const Image out = Output(out_, src);
            Check("ImgFix", Unlocked([&] {
                      return vt_ImgFix(src.as<float>(), out.as<float>(), map.as<float>(), src.width,
                                       src.height, radius, F32, maxPasses);
                  }));
            return out.array;
        },
        "src"_a, "defect_map"_a, "radius"_a = 1, "max_passes"_a = 200, py::kw_only(),
        "out"_a = py::none(),
        "Fills pixels whose map value is 1.0 or more from their good neighbours, ring by ring.");

    m.def(
        "FixBadPixel",
        [](py::handle src_, py::handle map_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {F32});
            const Image map = Companion(map_, "defect_map", src, {F32});
            const Image out = Output(out_, src);
            Check("FixBadPixel", Unlocked([&] {
                      return vt_FixBadPixel(src.as<float>(), out.as<float>(), map.as<float>(),
                                            src.width, src.height);
                  }));
            return out.array;
        },
        "src"_a, "defect_map"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "edgeClip",
        [](py::handle src_, const vt_clipParam& param) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32});
            auto margin = [](int32_t v) { return v > 0 ? static_cast<long long>(v) : 0LL; };
            const long long rows = src.height - margin(param.up) - margin(param.down);
            const long long cols = src.width - margin(param.left) - margin(param.right);
            const std::vector<py::ssize_t> shape{rows > 0 && cols > 0 ? rows : 0,
                                                 rows > 0 && cols > 0 ? cols : 0};
            const Image out = Output(py::none(), src, src.code, shape);
            int code = 0;
            switch (src.code) {
            case U8:
                code = Unlocked([&] {
                    return vt_edgeClip_8U(src.as<uint8_t>(), out.as<uint8_t>(), src.height,
                                          src.width, param);
                });
                break;
            case U16:
                code = Unlocked([&] {
                    return vt_edgeClip_16U(src.as<uint16_t>(), out.as<uint16_t>(), src.height,
                                           src.width, param);
                });
                break;
            default:
                code = Unlocked([&] {
                    return vt_edgeClip_32F(src.as<float>(), out.as<float>(), src.height, src.width,
                                           param);
                });
            }
            Check("edgeClip", code);
            return out.array;
        },
        "src"_a, "param"_a, "A new array without param.up/down rows and param.left/right columns.");

    m.def(
        "CopyRoiTo",
        [](py::handle src_, py::handle block_, int x, int y, py::handle out_) {
            const Image src = ImageArg(src_, "src", kAllTypes);
            const Image block = ImageArg(block_, "block", {src.code});
            const Image out = Output(out_, src);
            Check("CopyRoiTo", Unlocked([&] {
                      return vt_CopyRoiTo(src.as<uint8_t>(), out.as<uint8_t>(), block.as<uint8_t>(),
                                          src.code, src.width, src.height, block.width,
                                          block.height, x, y);
                  }));
            return out.array;
        },
        "src"_a, "block"_a, "x"_a, "y"_a, py::kw_only(), "out"_a = py::none(),
        "Pastes block at (x, y); rows of a block clipped on the right are read at the clipped "
        "width, as in the library.");

    m.def(
        "AddWaterMask",
        [](py::handle src_, py::handle mark_, int x, int y, float alpha, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U8, U16, F32}, true);
            // The library's codes of the channel layouts: 8-bit with 3 or 4 channels, 16-bit
            // with 3.
            int code = src.code;
            if (src.channels > 1) {
                code = src.code == U8                         ? (src.channels == 3 ? 1 : 2)
                       : src.code == U16 && src.channels == 3 ? 9
                                                              : 0;
                if (code == 0) {
                    throw py::type_error(
                        Format("src with %d channels must have dtype uint8%s, not %s", src.channels,
                               src.channels == 3 ? " or uint16" : "", NameOf(src.code)));
                }
            }
            const Image mark = ImageArg(mark_, "mark", {src.code}, true);
            if (mark.channels != src.channels) {
                throw py::value_error(Format("mark must have %d channel(s) like src, not %d",
                                             src.channels, mark.channels));
            }
            const Image out = Output(out_, src);
            Check("AddWaterMask", Unlocked([&] {
                      return vt_AddWaterMask(src.as<uint8_t>(), out.as<uint8_t>(),
                                             mark.as<uint8_t>(), src.width, src.height, mark.width,
                                             mark.height, x, y, code, alpha);
                  }));
            return out.array;
        },
        "src"_a, "mark"_a, "x"_a, "y"_a, "alpha"_a, py::kw_only(), "out"_a = py::none(),
        "Blends the non-zero pixels of mark into the rectangle at (x, y).");

    m.def(
        "Copy_LeftDown_To_RightUp",
        [](py::handle src_, int x, int y, int side, py::handle out_) {
            const Image src = ImageArg(src_, "src", kAllTypes);
            const Image out = Output(out_, src);
            Check("Copy_LeftDown_To_RightUp", Unlocked([&] {
                      return vt_Copy_LeftDown_To_RightUp(src.as<uint8_t>(), out.as<uint8_t>(),
                                                         src.width, src.height, src.code, x, y,
                                                         side);
                  }));
            return out.array;
        },
        "src"_a, "x"_a, "y"_a, "side"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "Copy_RightDown_To_LeftUp",
        [](py::handle src_, int x, int y, int side, py::handle out_) {
            const Image src = ImageArg(src_, "src", kAllTypes);
            const Image out = Output(out_, src);
            Check("Copy_RightDown_To_LeftUp", Unlocked([&] {
                      return vt_Copy_RightDown_To_LeftUp(src.as<uint8_t>(), out.as<uint8_t>(),
                                                         src.width, src.height, src.code, x, y,
                                                         side);
                  }));
            return out.array;
        },
        "src"_a, "x"_a, "y"_a, "side"_a, py::kw_only(), "out"_a = py::none());

    m.def(
        "GetLine2D",
        [](float x1, float y1, float x2, float y2) {
            float a = 0, b = 0, c = 0;
            Check("GetLine2D", vt_GetLine2D(x1, y1, x2, y2, &a, &b, &c));
            return py::make_tuple(a, b, c);
        },
        "x1"_a, "y1"_a, "x2"_a, "y2"_a,
        "(a, b, c) of the line a*x + b*y + c = 0 through the two points.");

    m.def(
        "MakeMaskByLine",
        [](py::handle src_, float x1, float y1, float x2, float y2, uint8_t side, uint16_t fill,
           py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            const Image out = Output(out_, src);
            Check("MakeMaskByLine", Unlocked([&] {
                      return vt_MakeMaskByLine(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                               src.height, x1, y1, x2, y2, side, fill);
                  }));
            return out.array;
        },
        "src"_a, "x1"_a, "y1"_a, "x2"_a, "y2"_a, "side"_a, "fill"_a, py::kw_only(),
        "out"_a = py::none());
}

void BindSharpening(py::module_& m) {
    m.def(
        "ImageConv",
        [](py::handle src_, py::handle kernel_, py::handle mask_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {F32});
            const Image kernel = KernelArg(kernel_);
            Image mask;
            if (!mask_.is_none()) mask = Companion(mask_, "mask", src, {U8});
            const Image out = Output(out_, src);
            const uint8_t* maskData = mask_.is_none() ? nullptr : mask.as<uint8_t>();
            Check("ImageConv", Unlocked([&] {
                      return vt_ImageConv(src.as<float>(), out.as<float>(), kernel.as<float>(),
                                          src.width, src.height, kernel.width, kernel.height,
                                          maskData);
                  }));
            return out.array;
        },
        "src"_a, "kernel"_a, "mask"_a = py::none(), py::kw_only(), "out"_a = py::none());

    m.def(
        "USM_BOX",
        [](py::handle src_, int32_t radius, float amount, bool normalise, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            const Image out = Output(out_, src);
            Check("USM_BOX", Unlocked([&] {
                      return vt_USM_BOX(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                        src.height, radius, amount, normalise ? 1 : 0);
                  }));
            return out.array;
        },
        "src"_a, "radius"_a, "amount"_a, "normalise"_a = false, py::kw_only(),
        "out"_a = py::none());

    m.def(
        "USM_EX",
        [](py::handle src_, vt_struUSMParam& param, py::handle iniPath, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            const Image out = Output(out_, src);
            const std::string ini = PathArg(iniPath);
            Check("USM_EX", Unlocked([&] {
                      return vt_USM_EX(src.as<uint16_t>(), out.data(), src.width, src.height,
                                       src.code, &param, ini.c_str());
                  }));
            return out.array;
        },
        "src"_a, "param"_a, "ini_path"_a = "", py::kw_only(), "out"_a = py::none());

    m.def(
        "USM_Gaussian",
        [](py::handle src_, int32_t radius, float amount, int32_t threshold, float sigma,
           py::handle mask_, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            Image mask;
            if (!mask_.is_none()) {
                mask = Companion(mask_, "mask", src, {U8});
                if (!mask.array.writeable())
                    throw py::value_error("mask is read-only (the function writes it)");
            }
            const Image out = Output(out_, src);
            uint8_t* maskData = mask_.is_none() ? nullptr : mask.as<uint8_t>();
            Check("USM_Gaussian", Unlocked([&] {
                      return vt_USM_Gaussian(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                             src.height, radius, amount, threshold, sigma,
                                             maskData);
                  }));
            return out.array;
        },
        "src"_a, "radius"_a, "amount"_a, "threshold"_a, "sigma"_a, "mask"_a = py::none(),
        py::kw_only(), "out"_a = py::none(),
        "Gaussian unsharp mask; a given uint8 mask receives 1 where |src - correlation| >= "
        "threshold.");

    m.def(
        "Img_Post_Process_Chain",
        [](py::handle src_, py::handle chainFile, py::handle out_) {
            const Image src = ImageArg(src_, "src", {U16});
            const Image out = Output(out_, src);
            const std::string file = PathArg(chainFile);
            // The chain's text is the file's lines without their line breaks: never longer than it.
            std::error_code ignored;
            const auto fileSize = std::filesystem::file_size(file, ignored);
            std::string text(ignored ? 1 : static_cast<size_t>(fileSize) + 1, '\0');
            size_t length = 0;
            const int code = Unlocked([&] {
                return vt_Img_Post_Process_Chain(src.as<uint16_t>(), out.as<uint16_t>(), src.width,
                                                 src.height, file.c_str(), &text[0], text.size(),
                                                 &length);
            });
            Check("Img_Post_Process_Chain", code, [](int c) { return c != 0; });
            text.resize(length < text.size() ? length : text.size() - 1);
            return py::make_tuple(out.array, text);
        },
        "src"_a, "chain_file"_a, py::kw_only(), "out"_a = py::none(),
        "Runs the chain file's steps on a uint16 image: (image, chain text).");
}

// ---------------------------------------------------------------------------------------------
// INI access and raw files

void BindFiles(py::module_& m) {
    m.def(
        "ReadString_INI",
        [](const std::string& section, const std::string& key, py::handle file,
           py::object defaultValue, int size) -> py::object {
            const std::string name = PathArg(file);
            std::string buffer(size > 0 ? size : 1, '\0');
            const int code = vt_ReadString_INI(section.c_str(), key.c_str(), &buffer[0], size,
                                               name.c_str(), nullptr);
            Check("ReadString_INI", code);
            if (code == 0) return defaultValue;
            return py::str(buffer.c_str());
        },
        "section"_a, "key"_a, "file_name"_a, "default"_a = py::none(), "size"_a = 4096,
        "The value as text (at most size - 1 characters), or default when the file or key is "
        "missing.");
    m.def(
        "ReadInt_INI",
        [](const std::string& section, const std::string& key, py::handle file, int defaultValue) {
            return vt_ReadInt_INI(section.c_str(), key.c_str(), PathArg(file).c_str(),
                                  defaultValue);
        },
        "section"_a, "key"_a, "file_name"_a, "default"_a = 0);
    m.def(
        "ReadFloat_INI",
        [](const std::string& section, const std::string& key, py::handle file,
           float defaultValue) {
            return vt_ReadFloat_INI(section.c_str(), key.c_str(), PathArg(file).c_str(),
                                    defaultValue);
        },
        "section"_a, "key"_a, "file_name"_a, "default"_a = 0.0f);
    m.def(
        "ReadDouble_INI",
        [](const std::string& section, const std::string& key, py::handle file,
           double defaultValue) {
            return vt_ReadDouble_INI(section.c_str(), key.c_str(), PathArg(file).c_str(),
                                     defaultValue);
        },
        "section"_a, "key"_a, "file_name"_a, "default"_a = 0.0);
    m.def(
        "WriteString_INI",
        [](const std::string& section, const std::string& key, const std::string& value,
           py::handle file) {
            const int code = vt_WriteString_INI(section.c_str(), key.c_str(), value.c_str(),
                                                PathArg(file).c_str());
            Check("WriteString_INI", code);
            return code;
        },
        "section"_a, "key"_a, "value"_a, "file_name"_a,
        "1 written, 0 the file could not be written.");
    m.def(
        "WriteInt_INI",
        [](const std::string& section, const std::string& key, int value, py::handle file) {
            const int code =
                vt_WriteInt_INI(section.c_str(), key.c_str(), value, PathArg(file).c_str());
            Check("WriteInt_INI", code);
            return code;
        },
        "section"_a, "key"_a, "value"_a, "file_name"_a);
    m.def(
        "WriteFloat_INI",
        [](const std::string& section, const std::string& key, float value, py::handle file) {
            const int code =
                vt_WriteFloat_INI(section.c_str(), key.c_str(), value, PathArg(file).c_str());
            Check("WriteFloat_INI", code);
            return code;
        },
        "section"_a, "key"_a, "value"_a, "file_name"_a);
    m.def(
        "WriteNULL_INI",
        [](const std::string& section, const std::string& key, py::handle file) {
            const int code = vt_WriteNULL_INI(section.c_str(), key.c_str(), PathArg(file).c_str());
            Check("WriteNULL_INI", code);
            return code;
        },
        "section"_a, "key"_a, "file_name"_a);

    m.def(
        "readRawFile",
        [](py::handle path, uint64_t width, uint64_t height, uint64_t headerBytes, int type) {
            const std::string file = PathArg(path);
            vt_imgmat* image = nullptr;
            const int code = Unlocked([&] {
                return vt_imgmat_readRawFile(file.c_str(), width, height, headerBytes, type,
                                             &image);
            });
            if (code != 1) throw py::value_error(vt_last_error());
            py::array_t<float> array(
                {static_cast<py::ssize_t>(image->height), static_cast<py::ssize_t>(image->width)});
            if (image->data != nullptr)
                std::memcpy(array.mutable_data(), image->data, array.nbytes());
            vt_imgmat_free(image);
            return array;
        },
        "path"_a, "width"_a, "height"_a, "header_bytes"_a = 0, "type"_a = 8,
        "A raw image file as float32 (height, width); type 3 is uint16, 8 float32 (see the "
        "library).");
    m.def(
        "writeRawFile",
        [](py::handle path, py::handle samples_) {
            const Image samples = ImageArg(samples_, "samples", {F32});
            const std::string file = PathArg(path);
            const int code = Unlocked([&] {
                return vt_imgmat_writeRawFile(file.c_str(), samples.as<float>(),
                                              static_cast<uint64_t>(samples.array.size()));
            });
            if (code != 1) throw py::value_error(vt_last_error());
        },
        "path"_a, "samples"_a, "Writes a float32 image as a headerless raw file.");
}

// ---------------------------------------------------------------------------------------------
// The detector: a handle of the C interface. veltrano.Detector builds on this class.

class DetectorHandle {
public:
    explicit DetectorHandle(const std::string& workDir)
        : handle_(vt_CVeltrano_new(workDir.c_str())) {
        if (handle_ == nullptr) throw std::bad_alloc();
    }
    ~DetectorHandle() { close(); }
    DetectorHandle(const DetectorHandle&) = delete;
    DetectorHandle& operator=(const DetectorHandle&) = delete;

    void close() {
        if (handle_ != nullptr) {
            vt_CVeltrano* handle = handle_;
            handle_ = nullptr;
            py::gil_scoped_release unlocked;
            vt_CVeltrano_delete(handle);
        }
    }
    bool closed() const { return handle_ == nullptr; }
    vt_CVeltrano* handle() const { return handle_; }

    // Calls f(handle) without the GIL.
    template <class F>
    int call(F&& f) const {
        vt_CVeltrano* handle = handle_;
        py::gil_scoped_release unlocked;
        return f(handle);
    }

    std::string text(int (*query)(vt_CVeltrano*, char*, size_t)) const {
        char buffer[1024];
        const int length = call([&](vt_CVeltrano* h) { return query(h, buffer, sizeof buffer); });
        return length < 0 ? std::string() : std::string(buffer);
    }

    // One exposure on a worker thread, while this thread reports the progress to `progress`
    // (each new value after the reset to 0, the last one included) and watches for
    // KeyboardInterrupt; an exception from either stops the acquisition and is raised once it has
    // ended. Returns (code, image or None, message).
    py::tuple acquire(int delayTime, int triggerMode, int triggerThreshold, py::object progress) {
        vt_CVeltrano* handle = handle_;
        struct Shared {
            std::mutex mutex;
            std::condition_variable changed;
            bool done = false;
            int code = 0;
            vt_imgmat* image = nullptr;
        };
        auto shared = std::make_shared<Shared>();
        vt_CVeltrano_SetEndSign(handle, 0);
        vt_CVeltrano_SetProgressBar(handle, 0);
        std::thread worker([handle, shared, delayTime, triggerMode, triggerThreshold] {
            vt_imgmat* image = nullptr;
            const int code =
                vt_CVeltrano_AcqImage(handle, &image, delayTime, triggerMode, triggerThreshold);
            std::lock_guard<std::mutex> lock(shared->mutex);
            shared->code = code;
            shared->image = image;
            shared->done = true;
            shared->changed.notify_all();
        });
        auto join = [&] {
            py::gil_scoped_release unlocked;
            worker.join();
        };
        try {
            int last = 0;  // the value it was reset to: not news
            for (bool done = false; !done;) {
                {
                    py::gil_scoped_release unlocked;
                    std::unique_lock<std::mutex> lock(shared->mutex);
                    done = shared->changed.wait_for(lock, std::chrono::milliseconds(20),
                                                    [&] { return shared->done; });
                }
                const int now = vt_CVeltrano_GetProgressBar(handle);
                if (!progress.is_none() && now != last) {
                    last = now;
                    progress(now);
                }
                if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            }
        } catch (...) {
            vt_CVeltrano_StopAcq(handle);
            join();
            vt_imgmat_free(shared->image);
            throw;
        }
        join();
        py::object image = py::none();
        if (shared->image != nullptr) {
            vt_imgmat* owned = shared->image;
            py::capsule release(owned, [](void* p) { vt_imgmat_free(static_cast<vt_imgmat*>(p)); });
            image = py::array_t<float>(
                {static_cast<py::ssize_t>(owned->height), static_cast<py::ssize_t>(owned->width)},
                owned->data, release);
        }
        return py::make_tuple(shared->code, image, text(vt_CVeltrano_GetLastMessage));
    }

private:
    vt_CVeltrano* handle_;
};

void BindDetector(py::module_& m) {
    using D = DetectorHandle;
    auto simple = [](int (*f)(vt_CVeltrano*)) {
        return [f](const D& d) { return d.call([f](vt_CVeltrano* h) { return f(h); }); };
    };
    auto withInt = [](int (*f)(vt_CVeltrano*, int)) {
        return
            [f](const D& d, int v) { return d.call([f, v](vt_CVeltrano* h) { return f(h, v); }); };
    };
    py::class_<D>(m, "_DetectorHandle", "The C interface's detector handle; use veltrano.Detector.")
        .def(py::init<const std::string&>(), "workdir"_a)
        .def("close", &D::close)
        .def_property_readonly("closed", &D::closed)
        .def("initialize", simple(vt_CVeltrano_Initialize))
        .def("initialize_by_path",
             [](const D& d, const std::string& path) {
                 return d.call([&](vt_CVeltrano* h) {
                     return vt_CVeltrano_InitializeByPath(h, path.c_str());
                 });
             })
        .def("connect", simple(vt_CVeltrano_Connect))
        .def("disconnect", simple(vt_CVeltrano_Disconnect))
        .def("deinit", simple(vt_CVeltrano_Deinit))
        .def("reset", simple(vt_CVeltrano_ReSet))
        .def("read_user_rom", simple(vt_CVeltrano_ReadUserRom))
        .def("update_firmware",
             [](const D& d, const std::string& path) {
                 return d.call(
                     [&](vt_CVeltrano* h) { return vt_CVeltrano_UpdateFirmWare(h, path.c_str()); });
             })
        .def("state", simple(vt_CVeltrano_GetDectectorState))
        .def("serial_number", [](const D& d) { return d.text(vt_CVeltrano_GetDectectorSerialNum); })
        .def("usb_info", [](const D& d) { return d.text(vt_CVeltrano_GetDectectorUSBInfo); })
        .def("judge_sensor_size", simple(vt_CVeltrano_JudgeSensorSize))
        .def("sensor_size", simple(vt_CVeltrano_GetSensorSize))
        .def("image_size",
             [](const D& d) -> py::object {
                 uint32_t width = 0, height = 0;
                 if (vt_CVeltrano_GetImageSize(d.handle(), &width, &height) != 0) return py::none();
                 return py::make_tuple(width, height);
             })
        .def("set_delay_time", withInt(vt_CVeltrano_SetDelayTime))
        .def("set_trigger_mode", withInt(vt_CVeltrano_SetTriggerMode))
        .def("set_trigger_threshold", withInt(vt_CVeltrano_SetTriggerThreshold))
        .def("acquire", &D::acquire, "delay_time"_a, "trigger_mode"_a, "trigger_threshold"_a,
             "progress"_a = py::none())
        .def("stop", simple(vt_CVeltrano_StopAcq))
        .def("progress", simple(vt_CVeltrano_GetProgressBar))
        .def("set_progress", withInt(vt_CVeltrano_SetProgressBar))
        .def("end_sign", simple(vt_CVeltrano_GetEndSign))
        .def("set_end_sign", withInt(vt_CVeltrano_SetEndSign))
        .def("user_stop", simple(vt_CVeltrano_GetUserStop))
        .def("reset_user_stop", simple(vt_CVeltrano_ResetUserStop))
        .def("last_message", [](const D& d) { return d.text(vt_CVeltrano_GetLastMessage); });

    m.def(
        "virtual_sensor_write_calibration",
        [](py::handle workDir, int frames) {
            const std::string folder = PathArg(workDir);
            veltrano::platform::DynamicLibrary driver;
            using Write = int (*)(const char*, int);
            Write write =
                driver.open("FpdSys")
                    ? reinterpret_cast<Write>(driver.symbol("VirtualSensor_WriteCalibration"))
                    : nullptr;
            if (write == nullptr) {
                throw std::runtime_error("the virtual sensor (" +
                                         veltrano::platform::DynamicLibrary::fileNameFor("FpdSys") +
                                         ") is not installed beside the library");
            }
            py::gil_scoped_release unlocked;
            return write(folder.c_str(), frames);
        },
        "workdir"_a, "frames"_a = 4,
        "Writes the virtual sensor's calibration files below workdir (its Correct/Default folder); "
        "0 on success.");
}

}  // namespace

PYBIND11_MODULE(_veltrano, m) {
    m.doc() = "Veltrano's C interface on numpy arrays; import veltrano instead.";
    m.attr("__version__") = vt_version();
    m.attr("VT_ERR_NULL_ARGUMENT") = VT_ERR_NULL_ARGUMENT;
    m.attr("VT_ERR_BUFFER_TOO_SMALL") = VT_ERR_BUFFER_TOO_SMALL;
    m.attr("VT_ERR_INVALID_NUMBER") = VT_ERR_INVALID_NUMBER;
    m.attr("VT_ERR_NUMBER_OUT_OF_RANGE") = VT_ERR_NUMBER_OUT_OF_RANGE;
    m.attr("VT_ERR_NO_MEMORY") = VT_ERR_NO_MEMORY;
    m.attr("VT_ERR_INTERNAL") = VT_ERR_INTERNAL;
    BindRecords(m);
    BindPointOperations(m);
    BindContrast(m);
    BindFilters(m);
    BindRepairAndGeometry(m);
    BindSharpening(m);
    BindFiles(m);
    BindDetector(m);
}
