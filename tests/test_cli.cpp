// The command line and its file formats: round trips, refusals, nothing
// written on failure, the same bits as the library, and the raw filter
// call reproducing a shared workload.
#include <gtest/gtest.h>

#include <png.h>
#include <tiffio.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "io/array_io.h"
#include "io/image_io.h"
#include "shapewiener/colour.h"
#include "shapewiener/denoise.h"
#include "shapewiener/noise.h"

namespace {

namespace fs = std::filesystem;

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("shapewiener_cli_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    // Runs the command line in the test's folder (a leading "ulimit ...; "
    // runs before it, with SIGXFSZ ignored so that a file size limit fails
    // the write); returns the exit code, stderr in *err, stdout in *out.
    // Both streams go beside the folder, which keeps only what the command writes.
    int run(const std::string& args, std::string* err = nullptr, std::string* out = nullptr) const {
        const size_t semi = args.find("; ");
        const size_t cut = semi == std::string::npos ? 0 : semi + 2;
        const int status = std::system(("cd " + dir_.string() + " && trap '' XFSZ && " + args.substr(0, cut) +
                                        SHAPEWIENER_CLI + " " + args.substr(cut) + " 2> ../" +
                                        dir_.filename().string() + ".err > ../" + dir_.filename().string() + ".out")
                                           .c_str());
        for (auto [file, text] : {std::pair{dir_.string() + ".err", err}, std::pair{dir_.string() + ".out", out}}) {
            std::ifstream in(file);
            std::stringstream s;
            s << in.rdbuf();
            if (text != nullptr) *text = s.str();
            fs::remove(file);
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    fs::path dir_;
};

// Stored values of a type with range [lo, hi], extremes included.
sw::Image levels(uint32_t rows, uint32_t cols, double lo, double hi) {
    sw::Image img{rows, cols, std::vector<double>(static_cast<size_t>(rows) * cols)};
    for (size_t p = 0; p < img.pixels.size(); ++p) {
        img.pixels[p] = lo + std::fmod(static_cast<double>(p * 7919 % 100003), hi - lo + 1);
    }
    img.pixels[0] = lo;
    img.pixels[1] = hi;
    return img;
}

void expect_same(const sw::Image& a, const sw::Image& b, double tolerance) {
    ASSERT_EQ(a.rows, b.rows);
    ASSERT_EQ(a.cols, b.cols);
    for (size_t p = 0; p < a.pixels.size(); ++p) ASSERT_NEAR(a.pixels[p], b.pixels[p], tolerance) << p;
}

// A C-order .npy file written by hand, as NumPy writes it.
void write_c_order_npy(const std::string& path, const sw::Image& img, bool single) {
    std::string header = std::string("{'descr': '") + (single ? "<f4" : "<f8") +
                         "', 'fortran_order': False, 'shape': (" + std::to_string(img.rows) + ", " +
                         std::to_string(img.cols) + "), }";
    while ((10 + header.size() + 1) % 64 != 0) header += ' ';
    header += '\n';
    std::ofstream out(path, std::ios::binary);
    out.write("\x93NUMPY\x01\x00", 8);
    const unsigned char len[2] = {static_cast<unsigned char>(header.size() & 0xff), static_cast<unsigned char>(header.size() >> 8)};
    out.write(reinterpret_cast<const char*>(len), 2);
    out << header;
    for (uint32_t r = 0; r < img.rows; ++r) {
        for (uint32_t c = 0; c < img.cols; ++c) {
            const double v = img.pixels[r + static_cast<size_t>(c) * img.rows];
            if (single) {
                const float f = static_cast<float>(v);
                out.write(reinterpret_cast<const char*>(&f), 4);
            } else {
                out.write(reinterpret_cast<const char*>(&v), 8);
            }
        }
    }
}

// One round trip per format and sample type, grey and colour: the stored
// values, the channels and their order (JPEG within its loss).
TEST_F(Cli, FormatsRoundTripAsStored) {
    using T = sw::SampleType;
    const auto image = [](uint32_t channels, double lo, double hi) {  // odd channels mirrored
        const sw::Image plane = levels(6, 5, lo, hi);
        sw::ColourImage im{6, 5, channels, {}};
        for (uint32_t k = 0; k < channels; ++k) {
            for (double v : plane.pixels) im.pixels.push_back(k % 2 ? hi + lo - v : v);
        }
        return im;
    };
    sw::ColourImage smooth{16, 16, 3, std::vector<double>(16 * 16 * 3)};
    for (size_t p = 0; p < smooth.pixels.size(); ++p) smooth.pixels[p] = 40 + 60 * (p / 256) + (p % 16) * 2;
    struct Case {
        const char* name;
        sw::ColourImage image;
        T type;
        double tolerance;
    } cases[] = {
        {"a.png", image(1, 0, 255), T::kUint8, 0},
        {"b.png", image(4, 0, 65535), T::kUint16, 0},
        {"c.tif", image(3, 0, 255), T::kUint8, 0},
        {"d.tiff", image(1, -32768, 32767), T::kInt16, 0},
        {"e.tif", image(4, -1e6, 1e6), T::kFloat32, 0},
        {"f.tif", sw::ColourImage{1, 2, 1, {0.1, -1e300}}, T::kFloat64, 0},
        {"g.npy", image(3, -128, 127), T::kInt8, 0},
        {"h.npy", image(1, 0, 4294967295.0), T::kUint32, 0},
        {"i.npy", sw::ColourImage{1, 2, 1, {-9007199254740992.0, 3}}, T::kInt64, 0},
        {"j.npy", image(4, 0, 1), T::kFloat64, 0},
        {"k.jpg", smooth, T::kUint8, 4},
        {"l.jpeg", image(1, 0, 255), T::kUint8, 60},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        swio::write_channels(path(c.name), path(c.name), c.image, c.type);
        const swio::ChannelFile back = swio::read_channels(path(c.name));
        EXPECT_EQ(back.type, c.type);
        ASSERT_EQ(back.image.channels, c.image.channels);
        sw::ColourImage expected = c.image;
        sw::to_type(&expected.pixels, c.type);
        expect_same({back.image.rows, back.image.cols * back.image.channels, back.image.pixels},
                    {expected.rows, expected.cols * expected.channels, expected.pixels}, c.tolerance);
    }
    // A higher JPEG quality is closer, and grey readers refuse colour.
    double error[2] = {0, 0};
    for (int q : {0, 1}) {
        swio::write_channels(path("q.jpg"), path("q.jpg"), smooth, T::kUint8, q ? 98 : 20);
        const swio::ChannelFile back = swio::read_channels(path("q.jpg"));
        for (size_t p = 0; p < smooth.pixels.size(); ++p) error[q] += std::fabs(back.image.pixels[p] - smooth.pixels[p]);
    }
    EXPECT_LT(error[1], error[0]);
    EXPECT_THROW(swio::read_image(path("c.tif")), std::runtime_error);
    // NumPy's C order, float32 and float64.
    const sw::Image x = levels(3, 4, 0, 1e6);
    for (bool single : {false, true}) {
        write_c_order_npy(path("c_order.npy"), x, single);
        const swio::ImageFile back = swio::read_image(path("c_order.npy"));
        EXPECT_EQ(back.type, single ? T::kFloat32 : T::kFloat64);
        expect_same(back.image, x, 0.0);
    }
    // Integer types round halves to even and clip; a NaN has no integer value.
    sw::Image rounding{1, 6, {-0.5, 300.0, 2.5, 3.5, 127.49, 0.5}};
    swio::write_image(path("clip.png"), path("clip.png"), rounding, T::kUint8);
    expect_same(swio::read_image(path("clip.png")).image, sw::Image{1, 6, {0, 255, 2, 4, 127, 0}}, 0.0);
    // ... and a failed write leaves neither the file nor its temporary.
    const auto files = std::distance(fs::directory_iterator(dir_), fs::directory_iterator());
    EXPECT_THROW(swio::write_atomically(path("nan.tif"), [&](const std::string& temp) {
        swio::write_image(temp, path("nan.tif"), sw::Image{1, 1, {NAN}}, T::kUint16);
    }), std::runtime_error);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), files);
    // Text arrays: rows per line.
    std::ofstream(path("k.txt")) << "# kernel\n1 2 3\n4 5 6\n";
    const swio::Array2 k = swio::read_array(path("k.txt"));
    EXPECT_EQ(k.rows, 2u);
    EXPECT_EQ(k.cols, 3u);
    EXPECT_EQ(k.values, (std::vector<double>{1, 4, 2, 5, 3, 6}));
}

// A PNG whose header claims width x height 8-bit grey pixels, with one
// tiny data chunk: about 100 bytes.
void write_giant_png(const std::string& path, uint32_t width, uint32_t height) {
    std::string bytes("\x89PNG\r\n\x1a\n", 8);
    const auto chunk = [&bytes](const char* type, const std::string& data) {
        const uint32_t n = static_cast<uint32_t>(data.size());
        const std::string body = std::string(type, 4) + data;
        for (int s = 24; s >= 0; s -= 8) bytes += static_cast<char>(n >> s);
        bytes += body;
        const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size()));
        for (int s = 24; s >= 0; s -= 8) bytes += static_cast<char>(crc >> s);
    };
    std::string ihdr;
    for (uint32_t v : {width, height}) {
        for (int s = 24; s >= 0; s -= 8) ihdr += static_cast<char>(v >> s);
    }
    ihdr += std::string("\x08\x00\x00\x00\x00", 5);
    chunk("IHDR", ihdr);
    unsigned char packed[64];
    uLongf packed_size = sizeof packed;
    const unsigned char zeros[16] = {0};
    compress(packed, &packed_size, zeros, sizeof zeros);
    chunk("IDAT", std::string(reinterpret_cast<char*>(packed), packed_size));
    chunk("IEND", "");
    std::ofstream(path, std::ios::binary) << bytes;
}

// A TIFF whose header claims side x side 8-bit pixels in one strip,
// holding one row.
void write_giant_tiff(const std::string& path, uint32_t side) {
    TIFF* t = TIFFOpen(path.c_str(), "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, side);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, side);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, side);
    std::vector<unsigned char> row(side, 7);
    TIFFWriteScanline(t, row.data(), 0, 0);
    TIFFClose(t);
}

// Every file of a folder (names below it) and its bytes.
std::map<std::string, std::string> snapshot(const fs::path& dir) {
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(dir)) {
        if (!e.is_regular_file()) continue;
        std::ifstream in(e.path(), std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        files[fs::relative(e.path(), dir).string()] = s.str();
    }
    return files;
}

// Hostile inputs: each row a bad input and what it must give; for every
// row the inputs and the existing outputs stay as they were, and nothing
// else is left behind (a row that succeeds adds its output only).
TEST_F(Cli, HostileInputsChangeNothing) {
    swio::write_image(path("grey.png"), path("grey.png"), levels(40, 40, 0, 255), sw::SampleType::kUint8);
    swio::write_image(path("float.npy"), path("float.npy"), levels(20, 20, 0, 1), sw::SampleType::kFloat64);
    swio::write_image(path("keep.tif"), path("keep.tif"), levels(20, 20, 0, 255), sw::SampleType::kUint8);
    swio::write_image(path("small.png"), path("small.png"), levels(12, 40, 0, 255), sw::SampleType::kUint8);
    const sw::ColourImage rgb{4, 4, 3, std::vector<double>(48, 100)}, rgba{4, 4, 4, std::vector<double>(64, 100)};
    for (const char* name : {"rgb.png", "rgb.tif"}) swio::write_channels(path(name), path(name), rgb, sw::SampleType::kUint8);
    swio::write_channels(path("rgba.png"), path("rgba.png"), rgba, sw::SampleType::kUint8);
    {  // Grey and alpha, which our writer does not make.
        std::vector<unsigned char> ga(4 * 4 * 2, 100);
        png_image png;
        std::memset(&png, 0, sizeof png);
        png.version = PNG_IMAGE_VERSION;
        png.width = png.height = 4;
        png.format = PNG_FORMAT_GA;
        ASSERT_TRUE(png_image_write_to_file(&png, path("ga.png").c_str(), 0, ga.data(), 0, nullptr));
    }
    std::ofstream(path("c.txt")) << "4 1 0\n1 4 1\n0 1 4\n";
    std::ofstream(path("k.txt")) << "1 1\n1 1\n";
    std::ofstream(path("bad.png")) << "not a png";
    write_giant_png(path("giant.png"), 100000, 100000);
    write_giant_tiff(path("giant.tif"), 20000);
    {  // .npy headers claiming more than the file holds, and complex values.
        std::ofstream(path("short.npy"), std::ios::binary)
            << std::string("\x93NUMPY\x01\x00\x36\x00", 10)
            << "{'descr': '<f8', 'fortran_order': False, 'shape': (1000, 1000), }\n";
        std::ofstream(path("complex.npy"), std::ios::binary)
            << std::string("\x93NUMPY\x01\x00\x34\x00", 10)
            << "{'descr': '<c16', 'fortran_order': False, 'shape': (1, 1), }\n" << std::string(16, '\0');
        const std::string five = "{'descr': '<f8', 'fortran_order': False, 'shape': (2, 2, 5), }\n";
        std::ofstream(path("five.npy"), std::ios::binary)
            << std::string("\x93NUMPY\x01\x00", 8) << static_cast<char>(five.size()) << '\0' << five
            << std::string(2 * 2 * 5 * 8, '\0');
        std::ofstream(path("int64.npy"), std::ios::binary)  // 2^53 + 1
            << std::string("\x93NUMPY\x01\x00\x3c\x00", 10)
            << "{'descr': '<i8', 'fortran_order': False, 'shape': (1, 1), }\n"
            << std::string("\x01\x00\x00\x00\x00\x00\x20\x00", 8);
    }
    fs::create_directories(path("folder.png"));
    const std::string long_name = std::string(240, 'n') + ".png";  // 244 characters
    const bool root = geteuid() == 0;  // a read-only folder does not stop root
    if (!root) {
        fs::create_directories(path("ro"));
        fs::permissions(path("ro"), fs::perms::owner_read | fs::perms::owner_exec);
    }

    struct Case {
        std::string args;
        int exit;          // expected exit code
        const char* says;  // on stderr
        const char* writes = nullptr;  // the output a successful row adds
    } cases[] = {
        // Unreadable, unsupported or lying inputs.
        {"denoise missing.png OUT --sigma 25", 1, "missing.png"},
        {"denoise bad.png OUT --sigma 25", 1, "not a readable PNG"},
        {"denoise ga.png OUT --sigma 25", 1, "has 2 channels (grey and alpha)"},
        {"denoise five.npy OUT --sigma 25", 1, "has 5 channels; images are grey (1 channel), RGB (3)"},
        {"denoise rgba.png out.jpg --sigma 25", 1, "JPEG holds no alpha channel"},
        {"denoise grey.png OUT --channel-covariance c.txt", 1, "for colour images"},
        {"denoise rgb.tif OUT --channel-covariance k.txt", 1, "it must be 3 x 3"},
        {"denoise rgb.png OUT --channel-covariance c.txt --sigma 2", 2, "excludes"},
        {"denoise giant.png OUT --sigma 25", 1, "100000 x 100000 pixels, more than the library's limit"},
        {"denoise giant.tif OUT --sigma 25", 1, "20000 x 20000 pixels need about"},
        {"convert giant.tif out.npy", 1, "giant.tif: "},
        {"denoise short.npy OUT --sigma 25", 1, "truncated .npy data"},
        {"denoise complex.npy OUT --sigma 25", 1, "complex values are not an image"},
        {"denoise int64.npy OUT --sigma 25", 1, "9007199254740993, beyond 2^53"},
        // Noise and options.
        {"denoise grey.png OUT --sigma 0", 1, "standard deviation"},
        {"denoise grey.png OUT --sigma 25 --noise-out p.npy", 2, "--sigma excludes --noise-out"},
        {"denoise grey.png OUT --noise-out p.txt", 1, "written as .npy"},
        {"noise grey.png --psd-out nodir/p.npy", 1, "the output folder"},
        {"noise grey.png --plot p.npy --psd-out p.png", 1, "written as .npy"},
        {"noise small.png", 1, "(shapewiener:image:tooSmall)"},
        {"denoise grey.png OUT --kernel k.txt", 2, "--sigma"},
        {"denoise grey.png OUT --psd grey.png", 1, "grey.png"},
        {"denoise grey.png OUT --sigma 25 --preset slow", 2, "slow"},
        {"denoise grey.png OUT --sigma 25 --type uint9", 1, "not a sample type"},
        {"denoise float.npy out.png --sigma 0.1", 1, "PNG holds uint8 or uint16 samples, not float64"},
        // Outputs that cannot be written: refused before any work, or the
        // write fails and the existing file stays.
        {"denoise grey.png nodir/out.png --sigma 25", 1, "the output folder"},
        {"denoise grey.png folder.png --sigma 25", 1, "is a folder"},
        {"denoise grey.png out.bmp --sigma 25", 1, "unknown image format"},
        {"ulimit -f 1; denoise grey.png keep.tif --sigma 25", 1, "keep.tif: write failed"},
        {"ulimit -f 1; convert float.npy keep.tif", 1, "keep.tif: write failed"},
        {root ? "denoise grey.png nodir/x.png --sigma 25" : "denoise grey.png ro/out.png --sigma 25", 1,
         root ? "does not exist" : "not writable"},
        // Runs that must succeed: a 244-character name; noise levels in the
        // wrong units run with the guard's warning.
        {"denoise grey.png " + long_name + " --sigma 25 --preset fast", 0, "", "LONG"},
        {"denoise grey.png out.png --sigma 0.1 --preset fast", 0, "did you mean 25.5?", "out.png"},
        {"denoise float.npy out.npy --sigma 25 --preset fast", 0, "did you mean 0.09804 (25/255)?", "out.npy"},
        {"denoise grey.png out.png --preset fast", 0, "noise estimated: sigma", "out.png"},
        {"denoise rgba.png out.tif --sigma 25 --preset fast", 0, "", "out.tif"},
    };
    for (const Case& c : cases) {
        std::string args = c.args;
        const size_t out_at = args.find("OUT");
        if (out_at != std::string::npos) args.replace(out_at, 3, "out.png");
        const std::string writes = c.writes == nullptr ? "" : std::strcmp(c.writes, "LONG") == 0 ? long_name : c.writes;
        const auto before = snapshot(dir_);
        std::string err;
        EXPECT_EQ(run(args, &err), c.exit) << args << "\n" << err;
        EXPECT_NE(err.find(c.says), std::string::npos) << args << "\n" << err;
        EXPECT_LE(std::count(err.begin(), err.end(), '\n'), 2) << err;
        auto after = snapshot(dir_);
        if (!writes.empty()) {
            EXPECT_EQ(after.erase(writes), 1u) << args;
            fs::remove(path(writes));
        }
        EXPECT_EQ(after.size(), before.size()) << args;
        EXPECT_TRUE(after == before) << args << ": an input or an existing output changed";
    }
    if (!root) fs::permissions(path("ro"), fs::perms::owner_all);
}

TEST_F(Cli, DenoiseGivesTheLibrarysBits) {
    // Coloured noise by `simulate`, denoised by the command line and by the library.
    sw::Image clean{40, 36, std::vector<double>(40 * 36)};
    for (size_t p = 0; p < clean.pixels.size(); ++p) clean.pixels[p] = (p % 40) < 17 ? 0.25 : 0.7;
    swio::write_image(path("clean.npy"), path("clean.npy"), clean, sw::SampleType::kFloat64);
    std::ofstream(path("k.txt")) << "1 2 1\n2 4 2\n1 2 1\n";
    ASSERT_EQ(run("simulate " + path("clean.npy") + " " + path("noisy.npy") + " --sigma 0.1 --kernel " +
                  path("k.txt") + " --seed 3"), 0);
    const sw::Image noisy = swio::read_image(path("noisy.npy")).image;
    std::string err;
    ASSERT_EQ(run("denoise " + path("noisy.npy") + " " + path("out.npy") + " --kernel " + path("k.txt") +
                  " --sigma 0.1 --reference " + path("clean.npy"), &err), 0) << err;
    EXPECT_NE(err.find("PSNR (peak 1) noisy"), std::string::npos) << err;
    const sw::Image cli = swio::read_image(path("out.npy")).image;
    const sw::Image lib = sw::denoise(noisy, sw::NoiseModel::from_kernel({1, 2, 1, 2, 4, 2, 1, 2, 1}, 3, 3, 0.1));
    ASSERT_EQ(cli.pixels.size(), lib.pixels.size());
    EXPECT_EQ(0, std::memcmp(cli.pixels.data(), lib.pixels.data(), lib.pixels.size() * sizeof(double)));

    ASSERT_EQ(run("compare " + path("out.npy") + " " + path("clean.npy")), 0);
}

TEST_F(Cli, BlindDenoiseAndTheNoiseCommand) {
    // An 8-bit PNG with coloured noise and no noise description: the
    // library's blind bits, its spectrum in --noise-out and from `noise`;
    // PSNR against the 8-bit reference with peak 255. (The command line's
    // bits for given noise, grey and colour: python/tests, every front end.)
    sw::Image clean{64, 72, std::vector<double>(64 * 72)};
    for (size_t p = 0; p < clean.pixels.size(); ++p) clean.pixels[p] = (p % 64) < 30 ? 70 : 180;
    swio::write_image(path("clean.png"), path("clean.png"), clean, sw::SampleType::kUint8);
    std::ofstream(path("k.txt")) << "1 2 1\n2 4 2\n1 2 1\n";
    ASSERT_EQ(run("simulate " + path("clean.png") + " " + path("noisy.png") + " --sigma 20 --kernel " +
                  path("k.txt") + " --type uint8"), 0);
    const swio::ImageFile noisy = swio::read_image(path("noisy.png"));
    std::string err, out;
    ASSERT_EQ(run("denoise " + path("noisy.png") + " " + path("out.png") + " --preset fast --noise-out " +
                  path("psd.npy") + " --reference " + path("clean.png"), &err), 0) << err;
    EXPECT_NE(err.find("coloured"), std::string::npos) << err;
    EXPECT_NE(err.find("PSNR (peak 255)"), std::string::npos) << err;
    sw::DenoiseOptions fast;
    fast.preset = "fast";
    sw::NoiseEstimate e;
    sw::Image lib = sw::denoise_blind(noisy.image, fast, sw::Progress(), nullptr, &e);
    sw::to_type(&lib.pixels, sw::SampleType::kUint8);
    EXPECT_EQ(swio::read_image(path("out.png")).image.pixels, lib.pixels);
    EXPECT_EQ(swio::read_array(path("psd.npy")).values, e.psd);
    ASSERT_EQ(run("denoise " + path("noisy.png") + " " + path("q.png") + " --preset fast --quiet", &err), 0);
    EXPECT_EQ(err, "");

    ASSERT_EQ(run("noise " + path("noisy.png") + " --psd-out " + path("psd2.npy") + " --plot " +
                  path("plot.png"), &err, &out), 0) << err;
    char sigma[32];
    std::snprintf(sigma, sizeof sigma, "sigma     %.6g ", e.sigma);
    EXPECT_NE(out.find(sigma), std::string::npos) << out;
    EXPECT_NE(out.find("coloured"), std::string::npos) << out;
    EXPECT_EQ(swio::read_array(path("psd2.npy")).values, e.psd);
    // The picture: 8-bit, the image's size, the low-pass noise bright around
    // the centre (DC) and darker towards the corners (the highest frequencies).
    const swio::ImageFile plot = swio::read_image(path("plot.png"));
    EXPECT_EQ(plot.type, sw::SampleType::kUint8);
    ASSERT_EQ(plot.image.rows, 64u);
    ASSERT_EQ(plot.image.cols, 72u);
    const auto at = [&](uint32_t r, uint32_t c) { return plot.image.pixels[r + size_t{64} * c]; };
    EXPECT_GT(at(32, 37), at(0, 0) + 100) << at(32, 37) << " " << at(0, 0);
    EXPECT_EQ(*std::max_element(plot.image.pixels.begin(), plot.image.pixels.end()), 255.0);

    // A colour image: the library's estimate, each channel's spectrum in
    // --psd-out as (rows, cols, 3), the shape the --psd of a colour image takes.
    const size_t plane = noisy.image.pixels.size();
    sw::ColourImage rgb{64, 72, 3, noisy.image.pixels};
    for (size_t k = 1; k < 3; ++k) {
        for (size_t p = 0; p < plane; ++p) rgb.pixels.push_back(255.0 - noisy.image.pixels[(p + 7 * k) % plane]);
    }
    swio::write_channels(path("rgb64.png"), path("rgb64.png"), rgb, sw::SampleType::kUint8);
    ASSERT_EQ(run("noise " + path("rgb64.png") + " --psd-out " + path("psd3.npy"), &err, &out), 0) << err;
    const sw::ColourNoiseEstimate c = sw::estimate_colour_noise(rgb);
    std::snprintf(sigma, sizeof sigma, "sigma     R %.6g, ", std::sqrt(c.covariance[0]));
    EXPECT_NE(out.find(sigma), std::string::npos) << out;
    const swio::Array2 psd3 = swio::read_npy(path("psd3.npy"), 0, true);
    ASSERT_EQ(psd3.channels, 3u);
    for (size_t k = 0; k < 3; ++k) {
        for (size_t f = 0; f < plane; f += 97) {
            EXPECT_EQ(psd3.values[f + k * plane], c.shape[f] * c.covariance[k * 4]);
        }
    }
}

TEST_F(Cli, FilterReproducesTheSharedWorkload) {
    const std::string root = SHAPEWIENER_WORKLOADS;
    ASSERT_TRUE(fs::exists(root + "/adaptive_h7/out.sha256")) << "no " << root;
    ASSERT_EQ(run("filter " + root + "/adaptive_h7 " + path("out.npy")), 0);
    // The output matrix is the file's last 512 * 512 doubles.
    const std::string cmd = "tail -c 2097152 " + path("out.npy") + " | sha256sum | cut -c1-64 > " + path("sum.txt");
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    std::string got, expected;
    std::ifstream(path("sum.txt")) >> got;
    std::ifstream(root + "/adaptive_h7/out.sha256") >> expected;
    EXPECT_EQ(got, expected.substr(0, 64));
}

}  // namespace
