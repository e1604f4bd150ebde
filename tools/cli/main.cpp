// shapewiener: denoise grey-scale images with coloured noise from the
// command line. `shapewiener --help` and `shapewiener <command> --help`
// describe everything.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "commands.h"
#include "shapewiener/denoise.h"
#include "shapewiener/version.h"

int main(int argc, char** argv) {
    CLI::App app{
        "shapewiener: denoises grey-scale and colour images corrupted by white or coloured\n"
        "(correlated) Gaussian noise. Images: .png (8/16-bit grey, RGB, RGBA), .tif/.tiff\n"
        "(grey, RGB or RGBA; integers of 8 to 64 bits, 32/64-bit float), .jpg/.jpeg (8-bit\n"
        "grey or RGB), .npy (the same types; (rows, cols) or (rows, cols, 3 or 4)).\n"
        "Units: values are used as stored, and noise levels are in the image's own units:\n"
        "an 8-bit image's sigma in grey levels 0..255, a 16-bit one's in 0..65535, a float\n"
        "image's in its values. Outputs keep the input's type unless --type says otherwise\n"
        "(integers rounded, clipped to the type's range).\n"
        "Without a noise description (--sigma, --kernel, --psd) `denoise` estimates the noise\n"
        "from the image itself; `noise` shows that estimate."};
    app.require_subcommand(1);
    app.set_version_flag("--version", "shapewiener " SHAPEWIENER_VERSION);

    swcli::DenoiseArgs d;
    CLI::App* denoise = app.add_subcommand(
        "denoise",
        "denoise an image; without --sigma, --kernel or --psd the noise (its level and spectrum) is "
        "estimated from the image and its sigma printed");
    denoise->add_option("INPUT", d.input, "noisy image (.png, .tif, .jpg, .npy), grey or colour")->required();
    denoise->add_option("OUTPUT", d.output, "denoised image (.png, .tif, .jpg, .npy), in the input's type")
        ->required();
    CLI::Option* sigma = denoise->add_option(
        "--sigma", d.sigma,
        "noise standard deviation per pixel, in the image's units (0..255 for 8-bit): white noise, or with "
        "--kernel the coloured noise sigma * (k conv w) / ||k||");
    CLI::Option* kernel = denoise->add_option(
        "--kernel", d.kernel, "noise kernel k (.npy or text: whitespace-separated rows); needs --sigma");
    CLI::Option* psd = denoise->add_option(
        "--psd", d.psd,
        "noise power spectrum of the image's size (.npy or text), DC at (0,0), unshifted; "
        "white noise of variance s^2 has PSD == s^2");
    CLI::Option* noise_out = denoise->add_option(
        "--noise-out", d.noise_out,
        "with no noise given: write the estimated power spectrum (.npy, float64, the image's "
        "shape, the --psd convention; for a colour image (rows, cols, 3), one per channel)");
    psd->excludes(sigma)->excludes(kernel);
    noise_out->excludes(sigma)->excludes(kernel)->excludes(psd);
    denoise->add_option("--preset", d.preset, "fast or default")
        ->check(CLI::IsMember({"fast", "default"}))
        ->capture_default_str();
    denoise->add_option("--threads", d.threads, "worker threads (0: all)")->capture_default_str();
    denoise->add_option("--reference", d.reference, "clean image: print the PSNR before and after");
    denoise->add_option("--type", d.type,
                        "output sample type (uint8, uint16, int16, float32, float64, ...); "
                        "default: the input's");
    denoise->add_flag("--quiet", d.quiet, "no progress bar, no summary and no noise estimate line");
    denoise->add_option("--channel-covariance", d.channel_covariance,
                        "colour images: noise correlated across R, G, B with this 3 x 3 per-pixel "
                        "covariance (.npy or text, in the image's units squared); its spatial shape "
                        "is white, or that of --kernel or --psd (their scale ignored); no --sigma")
        ->excludes(sigma)
        ->excludes(noise_out);
    denoise->add_option("--quality", d.quality, "JPEG output quality, 1..100")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();

    swcli::NoiseArgs n;
    CLI::App* noise = app.add_subcommand(
        "noise",
        "estimate an image's noise (sigma in the image's units, white or coloured, its power "
        "spectrum) and print a short report on stdout");
    noise->add_option("INPUT", n.input, "noisy image (.png, .tif, .jpg, .npy), at least 16 x 16, "
                      "grey or colour (then one spatial spectrum and the channels' covariance)")->required();
    noise->add_option("--psd-out", n.psd_out,
                      "write the estimated power spectrum (.npy, float64, the image's shape, "
                      "DC at (0,0), unshifted; what denoise --psd takes); for a colour image "
                      "(rows, cols, 3), one spectrum per channel");
    noise->add_option("--plot", n.plot,
                      "write a picture of the spectrum (8-bit .png): DC in the centre, log "
                      "scale, white at the peak to black 4 decades below; for a colour image "
                      "the spatial shape its channels share");
    noise->add_option("--threads", n.threads, "worker threads (0: all)")->capture_default_str();
    noise->add_flag("--quiet", n.quiet, "no progress bar");

    swcli::SimulateArgs s;
    CLI::App* simulate = app.add_subcommand(
        "simulate", "add Gaussian noise (white, or coloured by a kernel) to an image; colour "
        "images get it independently in R, G and B");
    simulate->add_option("INPUT", s.input, "clean image")->required();
    simulate->add_option("OUTPUT", s.output, "noisy image (.npy, .tif; .png with --type)")->required();
    simulate->add_option("--sigma", s.sigma,
                         "noise standard deviation per pixel, in the image's units")
        ->required();
    simulate->add_option("--type", s.type,
                         "output sample type; integers round and clip the noisy values")
        ->capture_default_str();
    simulate->add_option("--kernel", s.kernel, "colouring kernel (.npy or text); white without");
    simulate->add_option("--seed", s.seed,
                         "seed of the noise generator (colour: seed, seed + 1, seed + 2 for R, G, B)")
        ->capture_default_str();
    simulate->add_option("--quality", s.quality, "JPEG output quality, 1..100")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();

    swcli::CompareArgs c;
    CLI::App* compare = app.add_subcommand("compare", "PSNR of image A against reference B");
    compare->add_option("A", c.a, "image")->required();
    compare->add_option("B", c.b, "reference image")->required();
    compare->add_option("--peak", c.peak,
                        "peak value of the PSNR; default: B's type range for an integer "
                        "reference (255 for 8-bit), 1 for float");

    swcli::ConvertArgs v;
    CLI::App* convert = app.add_subcommand(
        "convert", "convert an image between formats, values kept as stored");
    convert->add_option("INPUT", v.input, "image")->required();
    convert->add_option("OUTPUT", v.output, "image (.png, .tif, .jpg, .npy)")->required();
    convert->add_option("--type", v.type,
                        "output sample type; default: the input's (integers round and clip)");
    convert->add_option("--quality", v.quality, "JPEG output quality, 1..100")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();

    swcli::FilterArgs f;
    CLI::App* filter = app.add_subcommand(
        "filter",
        "run the raw filter module on a folder of arguments (the layout of "
        "tests/data/workloads/adaptive_h7: scaleset.f64, dsm.u8[.gz], list.i32[.gz], "
        "transforms.f64, masks.u8)");
    filter->add_option("DIR", f.folder, "folder of arguments")->required();
    filter->add_option("OUTPUT", f.output, "output image, .npy (float64)")->required();
    filter->add_option("--noisy", f.noisy, "noisy image (.f64 raw or .npy); default: the *_noisy.f64 beside DIR");
    filter->add_option("--psd", f.psd, "N x N NoisePsd (.f64 raw or .npy); default: the *_psd32.f64 beside DIR");
    filter->add_option("--pilot", f.pilot, "pilot image; default: the noisy image");
    filter->add_option("--rows", f.rows, "image rows for raw .f64 images; default: square");
    filter->add_option("--wiener-factor", f.wiener_variance_factor, "WienerVarianceFactor")
        ->capture_default_str();
    filter->add_option("--noise-level-factor", f.noise_level_factor, "NoiseLevelFactor")
        ->capture_default_str();
    filter->add_option("--coverage-threshold", f.coverage_threshold, "CoverageThreshold")
        ->capture_default_str();
    filter->add_option("--threads", f.threads, "worker threads (0: all)")->capture_default_str();

    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return std::string("shapewiener: error: ") + e.what() + " (see --help)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    try {
        if (denoise->parsed()) {
            if (kernel->count() && !sigma->count() && d.channel_covariance.empty()) {
                std::fprintf(stderr, "shapewiener: error: --kernel requires --sigma (or "
                                     "--channel-covariance) (see --help)\n");
                return 2;
            }
            d.has_sigma = sigma->count() > 0;
            return swcli::run_denoise(d);
        }
        if (noise->parsed()) return swcli::run_noise(n);
        if (simulate->parsed()) return swcli::run_simulate(s);
        if (compare->parsed()) return swcli::run_compare(c);
        if (convert->parsed()) return swcli::run_convert(v);
        if (filter->parsed()) return swcli::run_filter(f);
    } catch (const sw::DenoiseError& e) {
        std::fprintf(stderr, "shapewiener: error: %s (%s)\n", e.what(), e.error().identifier);
        return e.error().code == sw::ErrorCode::kInterrupted ? 130 : 1;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "shapewiener: error: cannot allocate the memory this needs\n");
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "shapewiener: error: %s\n", e.what());
        return 1;
    }
    return 1;
}
