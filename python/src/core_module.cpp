// shapewiener._core: the library's two calls for Python. The Python side
// (shapewiener/_filter.py, shapewiener/_denoise.py) checks classes and lays
// the arrays out column-major; this module describes them for the library,
// releases the GIL while it runs and turns its errors into shapewiener.Error.
//
// Ctrl-C: the library calls the progress callback on the calling thread now
// and then; the callback takes the GIL for a moment and lets Python run its
// signal handlers. When one raises (KeyboardInterrupt), the call is cancelled
// and the exception is raised again once the library has returned.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "shapewiener/filter.h"
#include "shapewiener/colour.h"
#include "shapewiener/denoise.h"
#include "shapewiener/noise.h"
#include "shapewiener/units.h"
#if defined(SHAPEWIENER_HAVE_IO)
#include "io/image_io.h"
#endif

namespace py = pybind11;

namespace {

[[noreturn]] void raise_error(const char* identifier, const char* message) {
    py::object cls = py::module_::import("shapewiener.errors").attr("Error");
    py::object instance = cls(std::string(identifier), std::string(message));
    PyErr_SetObject(cls.ptr(), instance.ptr());
    throw py::error_already_set();
}

sw::Dims dims_of(const py::array& a) {
    sw::Dims d;
    const int nd = static_cast<int>(a.ndim());
    d.count = nd < 2 ? 2 : (nd > sw::Dims::kMaxDims ? sw::Dims::kMaxDims : nd);
    for (int i = 0; i < sw::Dims::kMaxDims; ++i) d.size[i] = 1;
    if (nd == 1) d.size[0] = static_cast<uint64_t>(a.shape(0));
    for (int i = 0; i < nd; ++i) {
        const int at = i < sw::Dims::kMaxDims ? i : sw::Dims::kMaxDims - 1;
        const uint64_t n = static_cast<uint64_t>(a.shape(i));
        d.size[at] = i < sw::Dims::kMaxDims ? n : d.size[at] * n;
    }
    return d;
}

template <class T>
sw::ArrayView<T> view_of(const py::handle& h) {
    sw::ArrayView<T> v;
    if (h.is_none()) return v;
    const py::array a = py::reinterpret_borrow<py::array>(h);
    v.data = static_cast<const T*>(a.data());
    v.dims = dims_of(a);
    return v;
}

// Polls Python's signal handlers from the library's progress callback and
// keeps the exception one of them raised (or the user's callback raised).
class Interrupt {
public:
    ~Interrupt() {
        if (type_ != nullptr) {
            py::gil_scoped_acquire gil;
            Py_XDECREF(type_);
            Py_XDECREF(value_);
            Py_XDECREF(traceback_);
        }
    }
    // With the GIL released: false when the call should stop.
    bool poll(const py::object* user, double fraction, const char* phase) {
        py::gil_scoped_acquire gil;
        if (PyErr_CheckSignals() != 0) {
            PyErr_Fetch(&type_, &value_, &traceback_);
            return false;
        }
        if (user != nullptr && !user->is_none()) {
            try {
                const py::object r = (*user)(fraction, phase);
                if (r.ptr() == Py_False) {
                    cancelled_ = true;
                    return false;
                }
            } catch (py::error_already_set& e) {
                e.restore();
                PyErr_Fetch(&type_, &value_, &traceback_);
                return false;
            }
        }
        return true;
    }
    // With the GIL held: raises the kept exception, if any.
    void rethrow() {
        if (type_ == nullptr) return;
        PyErr_Restore(type_, value_, traceback_);
        type_ = value_ = traceback_ = nullptr;
        throw py::error_already_set();
    }
    bool cancelled() const { return cancelled_; }

private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
    bool cancelled_ = false;
};

// Runs call(poll) with the GIL released; poll lets Python run its signal
// handlers and `progress` (a callable, None or nullptr) see the library's
// progress. Once the GIL is back, an exception kept by the poll is raised
// again, and a sw::DenoiseError (the library's errors) becomes
// shapewiener.Error.
template <class Call>
void call_released(const py::object* progress, Call&& call) {
    Interrupt interrupt;
    const sw::Progress poll = [&interrupt, progress](double fraction, const char* phase) {
        return interrupt.poll(progress, fraction, phase);
    };
    sw::Error error;
    {
        py::gil_scoped_release release;
        try {
            call(poll);
        } catch (const sw::DenoiseError& e) {
            error = e.error();
        }
    }
    interrupt.rethrow();
    if (error) raise_error(error.identifier, error.message);
}

py::dict report_dict(const sw::DenoiseReport& report) {
    py::dict r;
    r["passes"] = report.passes;
    r["accepted_entries"] = report.accepted_entries;
    r["key_changes"] = report.key_changes;
    r["seconds"] = report.seconds;
    return r;
}

// The raw module call. The arrays come checked for class and laid out
// column-major by shapewiener._filter; the images are dithered in place.
py::array filter_call(py::object scale_set, py::object dsm, py::list transforms, py::list masks,
                      double dft_size, py::object psd, py::array noisy, py::object plist,
                      double noise_level_factor, double max_scale, py::array pilot,
                      double wiener_variance_factor, double coverage_threshold,
                      py::object frame, unsigned threads) {
    std::vector<sw::ArrayView<double>> transform_views;
    std::vector<sw::ArrayView<uint8_t>> mask_views;
    for (const py::handle h : transforms) transform_views.push_back(view_of<double>(h));
    for (const py::handle h : masks) mask_views.push_back(view_of<uint8_t>(h));
    sw::FilterCall c;
    c.scale_set = view_of<double>(scale_set);
    c.direction_scale_map = view_of<uint8_t>(dsm);
    c.transforms = transform_views.data();
    c.transform_count = transform_views.size();
    c.sector_masks = mask_views.data();
    c.sector_mask_count = mask_views.size();
    c.dft_size = dft_size;
    c.noise_psd = view_of<double>(psd);
    c.noisy_image = static_cast<double*>(noisy.mutable_data());
    c.image_dims = dims_of(noisy);
    c.processing_list = view_of<int32_t>(plist);
    c.noise_level_factor = noise_level_factor;
    c.max_scale = max_scale;
    c.pilot_image = static_cast<double*>(pilot.mutable_data());
    c.pilot_dims = dims_of(pilot);
    c.wiener_variance_factor = wiener_variance_factor;
    c.coverage_threshold = coverage_threshold;
    if (!frame.is_none()) {
        const auto f = frame.cast<std::vector<uint32_t>>();
        if (f.size() != 4) throw py::value_error("frame must be (rows, cols, row0, col0)");
        c.frame = {f[0], f[1], f[2], f[3]};
    }
    const sw::Error invalid = sw::check(c);
    if (invalid) raise_error(invalid.identifier, invalid.message);

    const py::ssize_t m = static_cast<py::ssize_t>(c.image_dims.rows());
    const py::ssize_t k = static_cast<py::ssize_t>(c.image_dims.cols());
    py::array_t<double, py::array::f_style> out({m, k});
    double* out_data = out.mutable_data();
    call_released(nullptr, [&](const sw::Progress& poll) {
        sw::RunOptions options;
        options.threads = threads;
        options.progress = [&poll](double fraction) { return poll(fraction, "filter"); };
        const sw::Error e = sw::run(c, out_data, options);
        if (e) throw sw::DenoiseError(e);
    });
    return std::move(out);
}

std::vector<double> column_major(const py::array_t<double, py::array::f_style>& a) {
    return std::vector<double>(a.data(), a.data() + a.size());
}

// sw::denoise on a column-major float64 matrix. noise: "white", "kernel" or
// "psd"; tile: None or (rows, cols, row0, col0, value_min, value_max).
sw::Image image_of(const py::array_t<double>& image) {
    if (image.ndim() != 2) throw py::value_error("the image must be a 2-D array");
    sw::Image in;
    in.rows = static_cast<uint32_t>(image.shape(0));
    in.cols = static_cast<uint32_t>(image.shape(1));
    // One copy, column-major, from whatever memory order the array has.
    const auto v = image.unchecked<2>();
    in.pixels.resize(static_cast<size_t>(in.rows) * in.cols);
    for (py::ssize_t j = 0; j < v.shape(1); ++j) {
        for (py::ssize_t i = 0; i < v.shape(0); ++i) in.pixels[i + j * v.shape(0)] = v(i, j);
    }
    return in;
}

sw::NoiseModel model_of(const std::string& noise, double sigma, const py::object& kernel,
                        const py::object& psd) {
    sw::NoiseModel model;
    if (noise == "white") {
        model = sw::NoiseModel::white(sigma);
    } else if (noise == "kernel") {
        const auto k = kernel.cast<py::array_t<double, py::array::f_style>>();
        model = sw::NoiseModel::from_kernel(column_major(k), static_cast<uint32_t>(k.shape(0)),
                                            static_cast<uint32_t>(k.shape(1)), sigma);
    } else {
        model = sw::NoiseModel::from_psd(column_major(psd.cast<py::array_t<double, py::array::f_style>>()));
    }
    return model;
}

// A column-major float64 array that owns `values` without a copy.
py::array owned_matrix(std::vector<double>&& values, uint32_t rows, uint32_t cols) {
    auto* pixels = new std::vector<double>(std::move(values));
    py::capsule owner(pixels, [](void* p) { delete static_cast<std::vector<double>*>(p); });
    const py::ssize_t r = rows;
    return py::array(py::dtype::of<double>(), {r, static_cast<py::ssize_t>(cols)},
                     {static_cast<py::ssize_t>(sizeof(double)), r * static_cast<py::ssize_t>(sizeof(double))},
                     pixels->data(), owner);
}

// sw::remove_noise_peaks: None when the noise has no narrow peaks, else
// (image, residual psd).
py::object remove_peaks_call(py::array_t<double> image, const std::string& noise, double sigma,
                             py::object kernel, py::object psd, const std::string& preset) {
    const sw::Image in = image_of(image);
    const sw::NoiseModel model = model_of(noise, sigma, kernel, psd);
    sw::Image out;
    sw::NoiseModel residual;
    bool applied = false;
    call_released(nullptr, [&](const sw::Progress&) {
        applied = sw::remove_noise_peaks(in, model, preset, &out, &residual);
    });
    if (!applied) return py::none();
    return py::make_tuple(owned_matrix(std::move(out.pixels), out.rows, out.cols),
                          owned_matrix(std::move(residual.psd), out.rows, out.cols));
}

// A tile's frame from the tuple (frame rows, frame cols, row0, col0, ranges...)
// into options.tile; the tuple is returned for the ranges.
py::tuple tile_frame(const py::object& tile, sw::DenoiseOptions* options) {
    const py::tuple t = tile.cast<py::tuple>();
    options->tile.rows = t[0].cast<uint32_t>();
    options->tile.cols = t[1].cast<uint32_t>();
    options->tile.row0 = t[2].cast<uint32_t>();
    options->tile.col0 = t[3].cast<uint32_t>();
    return t;
}

py::tuple denoise_call(py::array_t<double> image, const std::string& noise,
                       double sigma, py::object kernel, py::object psd, const std::string& preset,
                       unsigned threads, py::object progress, py::object tile, bool peaks) {
    sw::Image in = image_of(image);
    const sw::NoiseModel model = model_of(noise, sigma, kernel, psd);
    sw::DenoiseOptions options;
    options.peaks = peaks;
    options.preset = preset;
    options.threads = threads;
    if (!tile.is_none()) {
        const py::tuple t = tile_frame(tile, &options);
        options.tile.value_min = t[4].cast<double>();
        options.tile.value_max = t[5].cast<double>();
    }
    sw::Image result;
    sw::DenoiseReport report;
    call_released(&progress, [&](const sw::Progress& poll) {
        result = sw::denoise(in, model, options, poll, &report);
        in.pixels.clear();
        in.pixels.shrink_to_fit();
    });
    // The result's pixels become the array's memory: no copy.
    return py::make_tuple(owned_matrix(std::move(result.pixels), result.rows, result.cols),
                          report_dict(report));
}

// Without a noise description: the estimate as a dict (sigma, psd,
// usable_fraction, white, block) for shapewiener.NoiseEstimate.
py::dict estimate_dict(sw::NoiseEstimate&& e) {
    py::dict d;
    d["sigma"] = e.sigma;
    d["usable_fraction"] = e.usable_fraction;
    d["white"] = e.white;
    d["block"] = e.block;
    d["psd"] = owned_matrix(std::move(e.psd), e.rows, e.cols);
    return d;
}

// sw::estimate_noise, or with `denoise` sw::denoise_blind: then
// (output, report, estimate), else the estimate.
py::object blind_call(py::array_t<double> image, bool denoise, const std::string& preset,
                      unsigned threads, py::object progress, bool peaks) {
    sw::Image in = image_of(image);
    sw::NoiseEstimate estimate;
    sw::Image result;
    sw::DenoiseReport report;
    call_released(&progress, [&](const sw::Progress& poll) {
        if (denoise) {
            sw::DenoiseOptions options;
            options.peaks = peaks;
            options.preset = preset;
            options.threads = threads;
            result = sw::denoise_blind(in, options, poll, &report, &estimate);
        } else {
            sw::NoiseEstimateOptions options;
            options.threads = threads;
            estimate = sw::estimate_noise(in, options, poll);
        }
        in.pixels.clear();
        in.pixels.shrink_to_fit();
    });
    if (!denoise) return estimate_dict(std::move(estimate));
    return py::make_tuple(owned_matrix(std::move(result.pixels), result.rows, result.cols),
                          report_dict(report), estimate_dict(std::move(estimate)));
}

// A (rows, cols, channels) float64 array as the library's colour image.
sw::ColourImage colour_of(const py::array_t<double>& image) {
    if (image.ndim() != 3) throw py::value_error("the colour image must be a 3-D array");
    sw::ColourImage in;
    in.rows = static_cast<uint32_t>(image.shape(0));
    in.cols = static_cast<uint32_t>(image.shape(1));
    in.channels = static_cast<uint32_t>(image.shape(2));
    const size_t plane = static_cast<size_t>(in.rows) * in.cols;
    const auto v = image.unchecked<3>();
    in.pixels.resize(plane * in.channels);
    for (py::ssize_t k = 0; k < v.shape(2); ++k) {
        for (py::ssize_t j = 0; j < v.shape(1); ++j) {
            for (py::ssize_t i = 0; i < v.shape(0); ++i) {
                in.pixels[i + j * v.shape(0) + k * plane] = v(i, j, k);
            }
        }
    }
    return in;
}

// A colour image as a (rows, cols, channels) array over the planes: a view
// of its memory.
py::array colour_array(sw::ColourImage&& image) {
    auto* pixels = new std::vector<double>(std::move(image.pixels));
    py::capsule owner(pixels, [](void* p) { delete static_cast<std::vector<double>*>(p); });
    const py::ssize_t d = sizeof(double), r = image.rows, c = image.cols;
    return py::array(py::dtype::of<double>(), {r, c, static_cast<py::ssize_t>(image.channels)},
                     {d, r * d, r * c * d}, pixels->data(), owner);
}

// kind: "same", "per_channel", "correlated" or "estimated"; models:
// (noise, sigma, kernel, psd) tuples as model_of takes them; covariance: 9
// values, row-major, or None.
sw::ColourNoise colour_noise_of(const std::string& kind, py::list models, py::object covariance) {
    std::vector<sw::NoiseModel> noise_models;
    for (const py::handle h : models) {
        const py::tuple t = h.cast<py::tuple>();
        noise_models.push_back(model_of(t[0].cast<std::string>(), t[1].cast<double>(), t[2], t[3]));
    }
    if (kind == "per_channel") return sw::ColourNoise::per_channel(std::move(noise_models));
    if (kind == "correlated") {
        const auto c = covariance.cast<std::vector<double>>();
        if (c.size() != 9) throw py::value_error("the channel covariance must have 9 values");
        std::array<double, 9> cov;
        std::copy(c.begin(), c.end(), cov.begin());
        return sw::ColourNoise::correlated(noise_models.at(0), cov);
    }
    if (kind == "estimated") return sw::ColourNoise::estimated();
    return sw::ColourNoise::same(noise_models.at(0));
}

sw::ColourOptions colour_options_of(const std::string& basis, bool joint) {
    sw::ColourOptions colour;
    colour.basis = basis == "noise" ? sw::ColourBasis::kNoise : sw::ColourBasis::kOpponent;
    colour.joint = joint;
    return colour;
}

// sw::denoise_colour on a (rows, cols, channels) float64 array; `tile`:
// None or (frame rows, frame cols, row0, col0, six channel ranges).
py::tuple denoise_colour_call(py::array_t<double> image, const std::string& kind, py::list models,
                              py::object covariance, const std::string& preset, unsigned threads,
                              py::object progress, const std::string& basis, bool joint,
                              py::object tile) {
    const sw::ColourImage in = colour_of(image);
    const sw::ColourNoise noise = colour_noise_of(kind, models, covariance);
    sw::DenoiseOptions options;
    options.preset = preset;
    options.threads = threads;
    sw::ColourOptions colour = colour_options_of(basis, joint);
    if (!tile.is_none()) {
        const py::tuple t = tile_frame(tile, &options);
        for (size_t k = 0; k < 6; ++k) colour.tile_ranges[k] = t[4 + k].cast<double>();
    }
    sw::ColourImage result;
    sw::DenoiseReport report;
    call_released(&progress, [&](const sw::Progress& poll) {
        result = sw::denoise_colour(in, noise, options, colour, poll, &report);
    });
    return py::make_tuple(colour_array(std::move(result)), report_dict(report));
}

// sw::estimate_colour_noise: {"shape", "covariance", "usable_fraction",
// "white", "noise": (kind or None, psd or None, covariance or None)}.
py::dict estimate_colour_call(py::array_t<double> image, unsigned threads, py::object progress) {
    const sw::ColourImage in = colour_of(image);
    sw::ColourNoiseEstimate e;
    call_released(&progress, [&](const sw::Progress& poll) {
        sw::NoiseEstimateOptions options;
        options.threads = threads;
        e = sw::estimate_colour_noise(in, options, poll);
    });
    auto matrix = [](const std::array<double, 9>& c) {
        py::array_t<double> m({3, 3});
        std::copy(c.begin(), c.end(), m.mutable_data());
        return m;
    };
    py::dict d;
    d["shape"] = owned_matrix(std::move(e.shape), e.rows, e.cols);
    d["covariance"] = matrix(e.covariance);
    d["usable_fraction"] = e.usable_fraction;
    d["white"] = e.white;
    py::object kind = py::none(), psd = py::none(), cov = py::none();
    if (!e.noise.models.empty()) {
        kind = py::str("correlated");
        psd = owned_matrix(std::move(e.noise.models[0].psd), in.rows, in.cols);
        cov = matrix(e.noise.covariance);
    }
    d["noise"] = py::make_tuple(kind, psd, cov);
    return d;
}

// The unit rule's pieces: a sample type by NumPy's name.
sw::SampleType type_of(const std::string& name) {
    sw::SampleType type;
    if (!sw::type_from_name(name, &type)) {
        raise_error("shapewiener:image:type",
                    ("'" + name + "' is not a sample type the library stores "
                     "(uint8, int8, ..., uint64, int64, float32, float64).").c_str());
    }
    return type;
}

// sw::to_type on a float64 array of any shape: the values as stored in
// `type`, still float64.
py::array_t<double> to_type_call(py::array_t<double, py::array::c_style | py::array::forcecast> values,
                                 const std::string& type) {
    const sw::SampleType t = type_of(type);
    py::array_t<double> out(values.request().shape);
    const double* in = values.data();
    double* o = out.mutable_data();
    try {
        for (py::ssize_t k = 0; k < values.size(); ++k) o[k] = sw::to_type(in[k], t);
    } catch (const std::domain_error& e) {
        raise_error("shapewiener:image:notFinite", e.what());
    }
    return out;
}

py::object noise_warning_call(double value_min, double value_max, const std::string& type,
                              const std::string& noise, double sigma, py::object kernel,
                              py::object psd) {
    const std::string w =
        sw::noise_warning(value_min, value_max, type_of(type), model_of(noise, sigma, kernel, psd));
    if (w.empty()) return py::none();
    return py::str(w);
}

#if defined(SHAPEWIENER_HAVE_IO)
// The command line's reader for any channel count: ((rows, cols) or
// (rows, cols, channels) float64 array, type name).
py::tuple read_channels_call(const std::string& path, uint64_t bytes_per_pixel) {
    swio::ChannelFile f;
    std::string error;
    {
        py::gil_scoped_release release;
        try {
            f = swio::read_channels(path, bytes_per_pixel);
        } catch (const std::exception& e) {
            error = e.what();
        }
    }
    if (!error.empty()) raise_error("shapewiener:file:read", error.c_str());
    const std::string type = sw::type_name(f.type);
    if (f.image.channels == 1) {
        return py::make_tuple(owned_matrix(std::move(f.image.pixels), f.image.rows, f.image.cols), type);
    }
    return py::make_tuple(colour_array(std::move(f.image)), type);
}

// Writes a (rows, cols) or (rows, cols, 3 or 4) array stored as `type`,
// atomically (JPEG with `quality`); the output folder is checked first.
void write_channels_call(const std::string& path, py::array_t<double> image,
                         const std::string& type, int quality) {
    const sw::SampleType t = type_of(type);
    sw::ColourImage img;
    if (image.ndim() == 2) {
        const sw::Image grey = image_of(image);
        img = {grey.rows, grey.cols, 1, grey.pixels};
    } else {
        img = colour_of(image);
    }
    std::string error;
    {
        py::gil_scoped_release release;
        try {
            swio::check_output_path(path);
            swio::write_atomically(path, [&](const std::string& temp) {
                swio::write_channels(temp, path, img, t, quality);
            });
        } catch (const std::exception& e) {
            error = e.what();
        }
    }
    if (!error.empty()) raise_error("shapewiener:file:write", error.c_str());
}
#endif

}  // namespace

PYBIND11_MODULE(_core, m) {
    m.doc() = "The shapewiener library: the raw filter module and the denoiser.";
    m.def("filter", &filter_call, "The raw sixteen-argument filter (arrays prepared by shapewiener.filter).");
    m.def("denoise", &denoise_call, "sw::denoise on a column-major float64 matrix.");
    m.def("denoise_colour", &denoise_colour_call, "sw::denoise_colour on a (rows, cols, channels) array.",
          py::arg("image"), py::arg("kind"), py::arg("models"), py::arg("covariance"),
          py::arg("preset"), py::arg("threads"), py::arg("progress"), py::arg("basis"),
          py::arg("joint"), py::arg("tile") = py::none());
    m.def("colour_basis", [](const std::string& kind, py::list models, py::object covariance,
                             const std::string& basis) {
        std::array<double, 9> a{};
        try {
            a = sw::colour_basis(colour_noise_of(kind, models, covariance), colour_options_of(basis, true));
        } catch (const sw::DenoiseError& e) {
            raise_error(e.error().identifier, e.error().message);
        }
        py::array_t<double> m({3, 3});
        std::copy(a.begin(), a.end(), m.mutable_data());
        return m;
    }, "sw::colour_basis: the 3 x 3 rotation, row-major.");
    m.def("estimate_colour_noise", &estimate_colour_call, "sw::estimate_colour_noise as a dict.");
    m.def("noise_has_peaks", [](uint32_t rows, uint32_t cols, const std::string& noise, double sigma,
                                py::object kernel, py::object psd, const std::string& preset) {
        try {
            return sw::noise_has_peaks(model_of(noise, sigma, kernel, psd), rows, cols, preset);
        } catch (const sw::DenoiseError& e) {
            raise_error(e.error().identifier, e.error().message);
        }
    }, "Whether sw::remove_noise_peaks does anything for this noise and size.");
    m.def("remove_noise_peaks", &remove_peaks_call,
          "sw::remove_noise_peaks: None, or (image, residual psd).");
    m.def("tile_halo", [](const std::string& preset) {
        try {
            return sw::tile_halo(preset);
        } catch (const sw::DenoiseError& e) {
            raise_error(e.error().identifier, e.error().message);
        }
    }, "The border a tile needs around the pixels it keeps, for a preset.");
    m.def("estimate_noise", [](py::array_t<double> image, unsigned threads, py::object progress) {
        return blind_call(std::move(image), false, "default", threads, std::move(progress), true);
    }, "sw::estimate_noise on a column-major float64 matrix: a dict.");
    m.def("denoise_blind", [](py::array_t<double> image, const std::string& preset, unsigned threads,
                              py::object progress, bool peaks) {
        return blind_call(std::move(image), true, preset, threads, std::move(progress), peaks);
    }, "sw::denoise_blind: (output, report, estimate dict).");
    m.def("to_type", &to_type_call, py::arg("values"), py::arg("type"),
          "Values as stored in a sample type (integers: halves to even, clipped to the range), "
          "as float64.");
    m.def("noise_warning", &noise_warning_call, py::arg("value_min"), py::arg("value_max"),
          py::arg("type"), py::arg("noise"), py::arg("sigma"), py::arg("kernel"), py::arg("psd"),
          "The plausibility guard's warning for this noise on these values, or None.");
    m.def("denoise_bytes_per_pixel", &sw::denoise_bytes_per_pixel,
          "Estimated bytes a denoise call needs per pixel with a preset.");
    m.def("size_refusal", [](uint64_t rows, uint64_t cols, uint64_t bytes_per_pixel) -> py::object {
        const std::string r = sw::size_refusal(rows, cols, bytes_per_pixel);
        if (r.empty()) return py::none();
        return py::str(r);
    }, "Why a rows x cols image needing that many bytes a pixel cannot be processed, or None.");
#if defined(SHAPEWIENER_HAVE_IO)
    m.def("read_channels", &read_channels_call, py::arg("path"), py::arg("bytes_per_pixel") = 0,
          "Reads a grey or colour image file as stored: (array, type name).");
    m.def("write_channels", &write_channels_call, py::arg("path"), py::arg("image"),
          py::arg("type"), py::arg("quality") = 95,
          "Writes a (rows, cols) or (rows, cols, 3 or 4) array stored as `type`, atomically.");
    m.attr("have_io") = true;
#else
    m.attr("have_io") = false;
#endif
}
