#include "shapewiener/noise.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "denoise/clipped.h"
#include "denoise/fail.h"
#include "denoise/fft.h"
#include "denoise/lanes.h"
#include "denoise/quantised.h"
#include "denoise/white_floor.h"
#include "driver/parallel.h"

namespace swdenoise {
namespace {

const double kPi = 3.14159265358979323846;

// The per-frequency low quantile that judges the blocks, and its factor
// for an exponentially distributed periodogram value: -ln(1 - q).
const double kQuantile = 0.25;
// Share of the blocks averaged (the flattest), at least kMinChosen of them.
const double kChosenShare = 0.15;
const size_t kMinChosen = 8;
// The mean periodogram of the chosen blocks of pure noise is this fraction
// of the noise's spectrum (choosing the lowest blocks also chooses low noise
// values); measured on white and low-pass noise of 256 x 256 to 1024 x 1024.
const double kChoiceBias = 0.89;
// A block whose judging statistic exceeds the largest chosen one by at most
// this (natural log of an energy ratio) counts as usable.
const double kUsableMargin = 0.25;

// First rows (or columns) of the blocks along an axis of length n: every
// step pixels, and one more flush with the end when the steps miss it.
std::vector<uint32_t> block_starts(uint32_t n, uint32_t block) {
    std::vector<uint32_t> starts;
    const uint32_t step = block / 2;
    for (uint32_t s = 0; s + block <= n; s += step) starts.push_back(s);
    if (starts.back() + block < n) starts.push_back(n - block);
    return starts;
}

// The k-th smallest of values (copied).
double order_statistic(std::vector<double> values, size_t k) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
}


// Periodic bilinear interpolation of a b x b spectrum onto a rows x cols
// frequency grid (both column-major, DC at (0, 0)).
std::vector<double> interpolate(const std::vector<double>& coarse, uint32_t b, uint32_t rows, uint32_t cols) {
    std::vector<double> along(static_cast<size_t>(rows) * b);  // rows x b
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < rows; ++u) {
            const uint64_t pos = static_cast<uint64_t>(u) * b;
            const uint32_t i0 = static_cast<uint32_t>(pos / rows);
            const double t = static_cast<double>(pos % rows) / rows;
            along[u + static_cast<size_t>(rows) * v] = (1.0 - t) * coarse[i0 + static_cast<size_t>(b) * v] +
                                                       t * coarse[(i0 + 1) % b + static_cast<size_t>(b) * v];
        }
    }
    std::vector<double> fine(static_cast<size_t>(rows) * cols);
    for (uint32_t x = 0; x < cols; ++x) {
        const uint64_t pos = static_cast<uint64_t>(x) * b;
        const uint32_t j0 = static_cast<uint32_t>(pos / cols);
        const uint32_t j1 = (j0 + 1) % b;
        const double t = static_cast<double>(pos % cols) / cols;
        for (uint32_t u = 0; u < rows; ++u) {
            fine[u + static_cast<size_t>(rows) * x] =
                (1.0 - t) * along[u + static_cast<size_t>(rows) * j0] + t * along[u + static_cast<size_t>(rows) * j1];
        }
    }
    return fine;
}

// For the cells of a b x b grid inside `mask`: the median of the nearest
// cells outside it (the smallest square neighbourhood holding at least 8 of
// them); the cells outside keep their own value.
std::vector<double> level_outside(const std::vector<double>& grid, const std::vector<char>& mask, uint32_t b) {
    std::vector<double> out(grid);
    std::vector<double> near;
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < b; ++u) {
            const size_t i = u + static_cast<size_t>(b) * v;
            if (!mask[i]) continue;
            for (uint32_t r = 1; r < b / 2; ++r) {
                near.clear();
                for (uint32_t dv = 0; dv <= 2 * r; ++dv) {
                    for (uint32_t du = 0; du <= 2 * r; ++du) {
                        const size_t j = (u + b + du - r) % b + static_cast<size_t>(b) * ((v + b + dv - r) % b);
                        if (!mask[j]) near.push_back(grid[j]);
                    }
                }
                if (near.size() >= 8) break;
            }
            if (!near.empty()) out[i] = order_statistic(near, near.size() / 2);
        }
    }
    return out;
}

// Median of the 5 x 5 periodic neighbourhood of every value of a b x b grid.
std::vector<double> median5(const std::vector<double>& grid, uint32_t b) {
    std::vector<double> out(grid.size());
    std::vector<double> near(25);
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < b; ++u) {
            size_t n = 0;
            for (uint32_t dv = 0; dv < 5; ++dv)
                for (uint32_t du = 0; du < 5; ++du)
                    near[n++] = grid[(u + b + du - 2) % b + static_cast<size_t>(b) * ((v + b + dv - 2) % b)];
            out[u + static_cast<size_t>(b) * v] = order_statistic(near, 12);
        }
    }
    return out;
}

// Mean of the (2 reach + 1)^2 periodic neighbourhood of every value of a
// b x b grid.
std::vector<double> box_mean(const std::vector<double>& grid, uint32_t b, uint32_t reach) {
    std::vector<double> out(grid.size());
    const uint32_t span = 2 * reach + 1;
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < b; ++u) {
            double sum = 0.0;
            for (uint32_t dv = 0; dv < span; ++dv)
                for (uint32_t du = 0; du < span; ++du)
                    sum += grid[(u + b + du - reach) % b + static_cast<size_t>(b) * ((v + b + dv - reach) % b)];
            out[u + static_cast<size_t>(b) * v] = sum / (span * span);
        }
    }
    return out;
}

// Texture against noise. A noise coefficient is Gaussian, so its fourth
// cumulant is zero: over all blocks, a frequency's excess
// c4 = mean(P^2) - 2 mean(P)^2 (3 instead of 2 where the coefficient is
// real) is the image's alone, whatever noise is added. Where the image's
// coefficients have the normalised excess a (sqrt(c4) over their mean
// power), their power is sqrt(c4) / a and the noise's at most
// mean(P) - sqrt(c4) / a. The largest ratio sqrt(c4) / mean(P) seen,
// reached where the image dominates, stands for a (one value for the
// frequencies above kLowRadius, and one of their own for those below: a
// texture's lowest frequencies, the sum of many of its elements, are
// nearer Gaussian than its finer ones, and the higher value left texture
// as noise there, gravel's most of all); a frequency whose excess lies
// within sampling error keeps its estimate.
// A stationary near-Gaussian texture, which the flattest blocks read as
// noise, has a small excess, about even over frequency, and is capped.
// There the noise under the texture lowers every frequency's ratio, the
// more the weaker the texture, so the largest ratio underrates a and the
// cap leaves texture as noise (grass: 1.8 times the true sigma at 0.05):
// above kLowRadius the cap takes the kCumulantQuantile quantile of the
// ratios instead of their largest (the largest still decides whether the
// cap applies at all). Where fewer than a quarter of them are significant,
// that quantile is zero and would leave the cap undone: it is then taken
// over the significant ratios alone. Frequencies below kLowRadius with no
// significant ratio of their own, their excess drowned by strong low-pass
// noise, take that value too instead of staying uncapped (gravel under
// pink noise of 0.1 read 1.55 times the true sigma, now 1.04; under the
// 3 x 3 box and the Gaussian of 0.1, 1.25 and 1.40 times, now 1.04 and
// 1.22). Misjudging toward
// texture costs less than toward noise there: noise left in costs a
// little, texture taken off as noise much more.
const uint32_t kCumulantReach = 2;  // smoothing over 5 x 5 frequencies
// A smoothed excess is significant above this multiple of its standard
// error (taken as if the neighbouring frequencies were independent; the
// overlap of the blocks and the window make the true spread about 1.4
// times that on pure noise of any spectrum, and its largest values over a
// 32 x 32 grid reach about 3.3 times the true spread).
const double kCumulantSignificance = 4.5;
const double kLowRadius = 0.08;  // cycles per pixel

// The radial frequency of bin f of a b x b grid (DC at 0), in cycles per pixel.
double bin_radius(size_t f, uint32_t b) {
    const uint32_t u = static_cast<uint32_t>(f % b);
    const uint32_t v = static_cast<uint32_t>(f / b);
    const double fu = static_cast<double>(std::min(u, b - u)) / b;
    const double fv = static_cast<double>(std::min(v, b - v)) / b;
    return std::sqrt(fu * fu + fv * fv);
}
// The cap applies only where the largest ratio stays below this: an image
// whose excess is larger somewhere (edges, objects on a flat ground) has
// it vary over frequency too much for one value of a, and the cap would
// take noise for image where its excess runs above that value.
const double kCumulantMaxRatio = 2.0;
// ... and only where the excess is significant on at least this share of
// the frequencies above kLowRadius: a texture fills the spectrum, while an
// image that shows its excess on a few frequencies alone lies under
// stronger noise everywhere else, and its largest ratio underrates it.
const double kCumulantMinShare = 0.2;
// The cap lowers a frequency's estimate by at most this factor: where a
// strongly peaked image part lies under stronger noise, the largest ratio
// underrates its excess, and the cap would take too much. (At 4 the limit
// held the noise-free gravel and grass at 0.09 and 0.07.)
const double kCumulantMaxCut = 16.0;
const double kCumulantQuantile = 0.75;
// Below this radius a texture holds most of its power, so an excess that
// falls short of significance there is still mostly the texture's: once
// the cap applies, it is taken as measured (gravel under white noise of
// 0.05 read 1.56 times the true sigma with only the significant ones
// counted, 1.31 so; the noise-free gravel 0.074, now 0.069).
const double kTrustedRadius = 0.16;  // cycles per pixel
// Just above kLowRadius, where a texture's grain (gravel's stones, grass's
// blades) holds its strongest part, the quantile of the finer frequencies
// overrates a: there the grain's ratios run about half of it, so the cap
// left a good part of the grain as noise, and low-pass noise beneath it was
// read far too high (gravel under the 9 x 1 line kernel at 0.05: 1.58
// times the true sigma). Those frequencies take the largest ratio of their
// own band instead where it is smaller: the line kernel's case now reads
// 1.25 times, gravel under the 3 x 3 box at 0.05 1.44 -> 0.91, the
// noise-free gravel 0.068 -> 0.033. A wider band let that largest ratio
// swing from one image to the next (the box's case 0.85-1.26).
const double kGrainRadius = 0.1;  // cycles per pixel
// Where the cap does not apply, the frequencies below kLowRadius are still
// capped on their own when their largest ratio stays below this and the
// excess is significant on at least kLowCapMinShare of the frequencies
// above: a regular pattern (a brick wall's mortar) has a large excess at
// its finer frequencies, yet its lowest ones, each block's sum of many of
// its elements, are nearer Gaussian and were read as noise (brick under
// pink noise of 0.05: 2-6 times the true spectrum there, 1.28 times the
// true sigma). There the cut is limited to kLowCapMaxCut: a smooth image
// under strong low-pass noise also shows a small ratio there, and the
// noise would be cut with the image (moon under the 9 x 1 line kernel at
// 0.1 lost 2.6 dB uncapped, 0.5 so). One value of a stands for them only
// where their ratios are about even: the lower quartile at least
// kLowCapEvenness of the largest (brick, noise-free or under any noise:
// 0.88-0.94). Where the noise takes over part of them, the ratios fall
// off from the largest (moon under low-pass noise of 0.1: 0.69-0.81) and
// the cap would take that noise for image.
const double kLowCapEvenness = 0.85;
const double kLowCapMaxRatio = 1.6;
const double kLowCapMinShare = 0.15;
const double kLowCapMaxCut = 2.0;

void cap_by_cumulant(const std::vector<double>& periodograms, size_t n_blocks, uint32_t b,
                     std::vector<double>* spectrum) {
    const size_t bins = static_cast<size_t>(b) * b;
    const double n = static_cast<double>(n_blocks);
    std::vector<double> m2(bins, 0.0);
    std::vector<double> m4(bins, 0.0);
    for (size_t i = 0; i < n_blocks; ++i) {
        const double* p = periodograms.data() + i * bins;
        for (size_t f = 0; f < bins; ++f) {
            m2[f] += p[f];
            m4[f] += p[f] * p[f];
        }
    }
    std::vector<double> factor(bins);
    std::vector<double> c4(bins);
    for (size_t f = 0; f < bins; ++f) {
        m2[f] /= n;
        m4[f] /= n;
        const uint32_t u = static_cast<uint32_t>(f % b);
        const uint32_t v = static_cast<uint32_t>(f / b);
        factor[f] = (u == 0 || 2 * u == b) && (v == 0 || 2 * v == b) ? 3.0 : 2.0;
        c4[f] = m4[f] - factor[f] * m2[f] * m2[f];
    }
    // The excess's sampling variance: that of its per-block influence
    // P^2 - 2 factor mean(P) P, over the number of blocks.
    std::vector<double> g1(bins, 0.0);
    std::vector<double> g2(bins, 0.0);
    for (size_t i = 0; i < n_blocks; ++i) {
        const double* p = periodograms.data() + i * bins;
        for (size_t f = 0; f < bins; ++f) {
            const double g = p[f] * p[f] - 2.0 * factor[f] * m2[f] * p[f];
            g1[f] += g;
            g2[f] += g * g;
        }
    }
    std::vector<double> variance(bins);
    for (size_t f = 0; f < bins; ++f) {
        const double mean = g1[f] / n;
        variance[f] = std::max(g2[f] / n - mean * mean, 0.0) / n;
    }
    const double cells = static_cast<double>((2 * kCumulantReach + 1) * (2 * kCumulantReach + 1));
    const std::vector<double> c4s = box_mean(c4, b, kCumulantReach);
    const std::vector<double> m2s = box_mean(m2, b, kCumulantReach);
    const std::vector<double> variances = box_mean(variance, b, kCumulantReach);
    std::vector<double> root(bins, 0.0);  // sqrt(c4) where significant
    std::vector<char> low(bins, 0);
    std::vector<char> trusted(bins, 0);
    double a_high = 0.0;
    double a_low = 0.0;
    double a_grain = 0.0;
    size_t high_cells = 0;
    size_t high_significant = 0;
    std::vector<double> high_ratios;
    for (size_t f = 1; f < bins; ++f) {
        const double radius = bin_radius(f, b);
        low[f] = radius <= kLowRadius;
        trusted[f] = radius <= kTrustedRadius;
        if (c4s[f] > kCumulantSignificance * std::sqrt(variances[f] / cells)) root[f] = std::sqrt(c4s[f]);
        if (!low[f]) {
            high_cells += 1;
            high_significant += root[f] > 0.0 ? 1 : 0;
        }
        if (!(m2s[f] > 0.0)) continue;
        const double ratio = root[f] / m2s[f];
        if (low[f]) {
            a_low = std::max(a_low, ratio);
        } else {
            a_high = std::max(a_high, ratio);
            high_ratios.push_back(ratio);
            if (radius <= kGrainRadius) a_grain = std::max(a_grain, ratio);
        }
    }
    if (!(a_high < kCumulantMaxRatio) ||
        static_cast<double>(high_significant) < kCumulantMinShare * static_cast<double>(high_cells)) {
        std::vector<double> low_ratios;
        for (size_t f = 1; f < bins; ++f) {
            if (low[f] && m2s[f] > 0.0) low_ratios.push_back(root[f] / m2s[f]);
        }
        if (a_low > 0.0 && a_low < kLowCapMaxRatio &&
            static_cast<double>(high_significant) >= kLowCapMinShare * static_cast<double>(high_cells) &&
            order_statistic(low_ratios, low_ratios.size() / 4) >= kLowCapEvenness * a_low) {
            for (size_t f = 1; f < bins; ++f) {
                if (!low[f] || root[f] == 0.0) continue;
                const double cap = std::max(m2s[f] - root[f] / a_low, (*spectrum)[f] / kLowCapMaxCut);
                (*spectrum)[f] = std::min((*spectrum)[f], cap);
            }
        }
        return;
    }
    double a_cap = high_ratios.empty()
                       ? a_high
                       : order_statistic(high_ratios, static_cast<size_t>(
                                                          kCumulantQuantile *
                                                          static_cast<double>(high_ratios.size() - 1)));
    // Fewer than a quarter of the ratios significant: the quantile of the
    // significant ones.
    if (!(a_cap > 0.0)) {
        std::vector<double> significant;
        for (double r : high_ratios) {
            if (r > 0.0) significant.push_back(r);
        }
        a_cap = significant.empty() ? a_high
                                    : order_statistic(significant, static_cast<size_t>(
                                                                       kCumulantQuantile *
                                                                       static_cast<double>(significant.size() - 1)));
    }
    for (size_t f = 1; f < bins; ++f) {
        double a = low[f] && a_low > 0.0 ? a_low : a_cap;
        if (!low[f] && a_grain > 0.0 && bin_radius(f, b) <= kGrainRadius) a = std::min(a, a_grain);
        if (trusted[f] && root[f] == 0.0 && c4s[f] > 0.0) root[f] = std::sqrt(c4s[f]);
        if (root[f] > 0.0 && a > 0.0) {
            const double cap = std::max(m2s[f] - root[f] / a, (*spectrum)[f] / kCumulantMaxCut);
            (*spectrum)[f] = std::min((*spectrum)[f], cap);
        }
    }
}

// The cell of the b-point grid that full-size index i of n belongs to
// (cells centred on the grid's frequencies).
uint32_t cell_of(uint32_t i, uint32_t n, uint32_t b) {
    return static_cast<uint32_t>(((static_cast<uint64_t>(i) * b + n / 2) / n) % b);
}

// Narrow peaks: a block spectrum of b x b frequencies blurs a peak narrower
// than a cell. Cells standing more than kPeakFactor above the median of
// their 5 x 5 neighbourhood (away from the lowest frequencies, where the
// image's own spectrum is steep), with the cells around them that the block
// window's blur lifts above the level outside, get the shape of the whole
// image's periodogram (smoothed; its own smooth level taken off), on the
// level outside, scaled so that these cells keep the block spectrum's total
// power. Returns the share of the spectrum's power that the peaks' excess
// over that level holds (0 without peaks); `centres` gets the cells that
// stood out.
const double kPeakFactor = 4.0;
// The blur reaches this many cells from a peak cell; a cell within reach
// counts when it stands kSkirtFactor above the level outside.
const uint32_t kPeakReach = 3;
const double kSkirtFactor = 2.0;
// The whole image's periodogram is smoothed by a Gaussian of this width
// (full-size frequency bins) before it gives a peak its shape: 3 instead of
// 2 read the benchmark's narrow-band noise 0.06-0.86 dB better on every
// image; wider smoothing helped those further but blurred the narrowest
// peaks (0.01 cycles per pixel wide) past their tolerance.
const double kPeakSmoothing = 3.0;
// Within those cells, the periodogram's excess over the image's smooth level
// counts as peak only where it exceeds this multiple of that level: weaker
// excess is the image's own fluctuation, and would spread the peak's tails.
const double kPeakSignificance = 2.0;
// A cell around a noise peak joins the peak only where its periodogram
// values look Gaussian over the usable blocks: their fourth cumulant over
// the second moment squared stays below this. The noise's own cells read
// within +-0.4 on the benchmark's images, while an image line that runs
// through a peak's reach (a brick wall's mortar, along a frequency axis)
// reads 5-35 and was taken for noise: the denoiser then took the mortar off.
const double kSkirtExcess = 1.0;

// Peaks of the image's own: a regular pattern (the mortar of a brick wall)
// stands out of the block spectrum as weak peaks much like narrow-band
// noise does. Two things tell them apart. The pattern's peaks hold a small
// share of the power under noise of any strength worth removing (3-8 % on
// brick under white noise), narrow-band noise usually most of it (18-100 %
// in the benchmark; but a weak periodic noise on a strong floor holds
// little too). And a noise coefficient is Gaussian: over the blocks, its
// periodogram's fourth cumulant mean(P^2) - 2 mean(P)^2 is zero, while a
// pattern whose strength varies from block to block gives a positive one
// (0.17-0.36 of mean(P)^2 on brick; noise peaks read within +-0.1).
// Peaks with both marks are the image's: they do not keep a spectrum from
// counting as white.
const double kMinorPeakShare = 0.12;
const double kPatternExcess = 0.15;
// At most this many rounds of flattening (brick under stripes needs 6).
const int kPatternPasses = 16;

double peak_excess(double smooth, double image_level) {
    const double excess = smooth - image_level;
    return excess > kPeakSignificance * image_level ? excess : 0.0;
}

// Each peak's own shape. The smoothed periodogram widens a peak by the
// smoothing's width, and the significance cut takes off its tails, which
// hold much of a wide peak's power (a tenth beyond two of its widths): the
// denoiser then leaves the noise there in place, and a peak read 5 % too
// narrow costs 1-2 dB on narrow-band noise. So each group of neighbouring
// outstanding cells gets a Gaussian fitted to the significant excess within
// kPeakReach cells of its highest value: weighted least squares on the
// excess's logarithm, each value weighted by itself (the logarithm of a
// smoothed periodogram fluctuates about alike at every height, so the tails
// tell the width best, but the lowest values carry most of the error of
// the image's level beneath; weighted by their squares, the benchmark's
// narrow-band cases lost 0.35 dB more). With the smoothing's own variance
// taken off its covariance and its volume kept, the Gaussian stands for the
// peak there, and wherever it reaches beyond (to four widths) above what
// is there. Its height comes from the whole image's periodogram, not from
// the flattest blocks, whose choice also favours blocks where the peak is
// weak (pure narrow-band noise read 0.86 of its sigma so).
const double kPeakMinVariance = 0.25;  // bins^2, the narrowest fitted peak
// The fit is taken only where its top stays within this factor of the
// excess's highest value and near it; otherwise the group keeps the
// smoothed shape.
const double kPeakFitFactor = 2.0;

// Solves the n x n system a x = r (column-major a, overwritten) into r with
// partial pivoting; false where it is singular.
bool solve(std::vector<double>* a, std::vector<double>* r, size_t n) {
    std::vector<double>& m = *a;
    std::vector<double>& y = *r;
    for (size_t k = 0; k < n; ++k) {
        size_t pivot = k;
        for (size_t i = k + 1; i < n; ++i) {
            if (std::abs(m[i + n * k]) > std::abs(m[pivot + n * k])) pivot = i;
        }
        if (!(std::abs(m[pivot + n * k]) > 0.0)) return false;
        if (pivot != k) {
            for (size_t j = 0; j < n; ++j) std::swap(m[k + n * j], m[pivot + n * j]);
            std::swap(y[k], y[pivot]);
        }
        for (size_t i = k + 1; i < n; ++i) {
            const double f = m[i + n * k] / m[k + n * k];
            for (size_t j = k; j < n; ++j) m[i + n * j] -= f * m[k + n * j];
            y[i] -= f * y[k];
        }
    }
    for (size_t k = n; k-- > 0;) {
        double s = y[k];
        for (size_t j = k + 1; j < n; ++j) s -= m[k + n * j] * y[j];
        y[k] = s / m[k + n * k];
    }
    return true;
}

// Groups of neighbouring marked cells of a b x b grid (8-neighbours,
// periodic), in the order of their lowest cell; each group's cells sorted.
std::vector<std::vector<size_t>> neighbour_groups(const std::vector<char>& marked, uint32_t b) {
    std::vector<std::vector<size_t>> groups;
    std::vector<char> seen(marked.size(), 0);
    std::vector<size_t> stack;
    for (size_t seed = 0; seed < marked.size(); ++seed) {
        if (!marked[seed] || seen[seed]) continue;
        std::vector<size_t> group;
        stack.assign(1, seed);
        seen[seed] = 1;
        while (!stack.empty()) {
            const size_t c = stack.back();
            stack.pop_back();
            group.push_back(c);
            const uint32_t u = static_cast<uint32_t>(c % b);
            const uint32_t v = static_cast<uint32_t>(c / b);
            for (uint32_t a = 0; a < 3; ++a) {
                for (uint32_t d = 0; d < 3; ++d) {
                    const size_t j = (u + b + a - 1) % b + static_cast<size_t>(b) * ((v + b + d - 1) % b);
                    if (marked[j] && !seen[j]) {
                        seen[j] = 1;
                        stack.push_back(j);
                    }
                }
            }
        }
        std::sort(group.begin(), group.end());
        groups.push_back(std::move(group));
    }
    return groups;
}

// Signed distance from a to i on a periodic axis of n bins.
double offset(uint32_t i, uint32_t a, uint32_t n) {
    const uint32_t d = (i + n - a) % n;
    return 2 * d > n ? static_cast<double>(d) - n : static_cast<double>(d);
}

void fit_peaks(const std::vector<char>& peak, const std::vector<char>& centre, uint32_t b, uint32_t rows, uint32_t cols,
               double blur,
               const std::vector<double>& smooth, const std::vector<double>& image_level,
               const std::vector<double>& noise_level, std::vector<double>* psd, std::vector<double>* beneath) {
    std::vector<char> member(peak.size(), 0);
    const double scale = 8.0;  // bins per unit of the fit's coordinates
    const double window_u = static_cast<double>(kPeakReach) * rows / b;
    const double window_x = static_cast<double>(kPeakReach) * cols / b;
    for (const std::vector<size_t>& group : neighbour_groups(centre, b)) {
        std::fill(member.begin(), member.end(), 0);
        for (size_t c : group) member[c] = 1;
        // The group's highest excess.
        double top = 0.0;
        uint32_t u0 = 0;
        uint32_t x0 = 0;
        for (uint32_t x = 0; x < cols; ++x) {
            const uint32_t cx = cell_of(x, cols, b);
            for (uint32_t u = 0; u < rows; ++u) {
                if (!member[cell_of(u, rows, b) + static_cast<size_t>(b) * cx]) continue;
                const size_t i = u + static_cast<size_t>(rows) * x;
                const double e = peak_excess(smooth[i], image_level[i]);
                if (e > top) {
                    top = e;
                    u0 = u;
                    x0 = x;
                }
            }
        }
        if (!(top > 0.0)) continue;
        const auto within = [&](uint32_t u, uint32_t x) {
            return std::abs(offset(u, u0, rows)) <= window_u && std::abs(offset(x, x0, cols)) <= window_x &&
                   peak[cell_of(u, rows, b) + static_cast<size_t>(b) * cell_of(x, cols, b)];
        };
        std::vector<double> normal(36, 0.0);
        std::vector<double> rhs(6, 0.0);
        bool highest = true;  // no higher excess within the window
        for (uint32_t x = 0; x < cols && highest; ++x) {
            for (uint32_t u = 0; u < rows && highest; ++u) {
                if (!within(u, x)) continue;
                const size_t i = u + static_cast<size_t>(rows) * x;
                const double e = peak_excess(smooth[i], image_level[i]);
                if (!(e > 0.0)) continue;
                highest = e <= top;
                const double t = offset(u, u0, rows) / scale;
                const double s = offset(x, x0, cols) / scale;
                const double phi[6] = {1.0, t, s, t * t, t * s, s * s};
                const double w = e;
                const double y = std::log(e);
                for (size_t j = 0; j < 6; ++j) {
                    rhs[j] += w * phi[j] * y;
                    for (size_t k = 0; k < 6; ++k) normal[j + 6 * k] += w * phi[j] * phi[k];
                }
            }
        }
        if (!highest || !solve(&normal, &rhs, 6)) continue;
        // log e = c0 + c' t + t' H t / 2 with H = [2 c3, c4; c4, 2 c5].
        const double h11 = 2.0 * rhs[3];
        const double h12 = rhs[4];
        const double h22 = 2.0 * rhs[5];
        const double hdet = h11 * h22 - h12 * h12;
        if (!(h11 < 0.0 && hdet > 0.0)) continue;
        // The fitted covariance -H^-1 and centre, in bins.
        double s11 = -h22 / hdet;
        const double s12 = h12 / hdet;
        double s22 = -h11 / hdet;
        const double m1 = (s11 * rhs[1] + s12 * rhs[2]) * scale;
        const double m2 = (s12 * rhs[1] + s22 * rhs[2]) * scale;
        const double log_top = rhs[0] + 0.5 * (rhs[1] * (s11 * rhs[1] + s12 * rhs[2]) + rhs[2] * (s12 * rhs[1] + s22 * rhs[2]));
        s11 *= scale * scale;
        const double f12 = s12 * scale * scale;
        s22 *= scale * scale;
        const double fitted_det = s11 * s22 - f12 * f12;
        const double c11 = std::max(s11 - blur, kPeakMinVariance);
        const double c22 = std::max(s22 - blur, kPeakMinVariance);
        const double c12 = std::max(std::min(f12, 0.95 * std::sqrt(c11 * c22)), -0.95 * std::sqrt(c11 * c22));
        const double det = c11 * c22 - c12 * c12;
        const double fitted_top = std::exp(log_top);
        if (!(fitted_top < kPeakFitFactor * top && fitted_top > top / kPeakFitFactor) ||
            std::abs(m1) > 2.0 * std::sqrt(s11) + 1.0 || std::abs(m2) > 2.0 * std::sqrt(s22) + 1.0) {
            continue;
        }
        const double height = fitted_top * std::sqrt(fitted_det / det);
        const double i11 = c22 / det;
        const double i12 = -c12 / det;
        const double i22 = c11 / det;
        const auto model = [&](uint32_t u, uint32_t x) {
            const double du = offset(u, u0, rows) - m1;
            const double dx = offset(x, x0, cols) - m2;
            return height * std::exp(-0.5 * (i11 * du * du + 2.0 * i12 * du * dx + i22 * dx * dx));
        };
        // The model over the window's peak cells, and beyond them wherever
        // it exceeds what is there.
        const double reach_u = 4.0 * std::sqrt(c11) + 1.0;
        const double reach_x = 4.0 * std::sqrt(c22) + 1.0;
        for (uint32_t x = 0; x < cols; ++x) {
            const bool near_x = std::abs(offset(x, x0, cols) - m2) <= reach_x;
            for (uint32_t u = 0; u < rows; ++u) {
                const size_t i = u + static_cast<size_t>(rows) * x;
                const bool inside = within(u, x);
                if (!inside && !(near_x && std::abs(offset(u, u0, rows) - m1) <= reach_u)) continue;
                const double value = noise_level[i] + model(u, x);
                if (inside || value > (*psd)[i]) {
                    (*psd)[i] = value;
                    (*beneath)[i] = noise_level[i];
                }
            }
        }
    }
}

// `own` marks the cells known to be the image's; they stay out of a peak's
// reach (a cell that stands out as a peak itself is still one).
double refine_peaks(const sw::Image& image, const std::vector<double>& coarse, const std::vector<char>& own, uint32_t b,
                    std::vector<double>* psd, std::vector<size_t>* centres, std::vector<char>* reshaped,
                    std::vector<double>* beneath) {
    const uint32_t rows = image.rows;
    const uint32_t cols = image.cols;
    const std::vector<double> level = median5(coarse, b);
    std::vector<char> peak(coarse.size(), 0);
    std::vector<char> centre(coarse.size(), 0);
    bool any = false;
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < b; ++u) {
            const uint32_t du = std::min(u, b - u);
            const uint32_t dv = std::min(v, b - v);
            const size_t i = u + static_cast<size_t>(b) * v;
            if ((du > 2 || dv > 2) && coarse[i] > kPeakFactor * level[i]) {
                centres->push_back(i);
                centre[i] = 1;
                const uint32_t span = 2 * kPeakReach + 1;
                for (uint32_t a = 0; a < span; ++a) {
                    for (uint32_t c = 0; c < span; ++c) {
                        const uint32_t pu = (u + b + a - kPeakReach) % b;
                        const uint32_t pv = (v + b + c - kPeakReach) % b;
                        if (std::min(pu, b - pu) > 2 || std::min(pv, b - pv) > 2) peak[pu + static_cast<size_t>(b) * pv] = 1;
                    }
                }
                any = true;
            }
        }
    }
    if (!any) return 0.0;
    // Under the peaks, the level of the cells around them.
    const std::vector<double> floor_level = level_outside(coarse, peak, b);
    // Of those, the cells the blocks see above that level: the image's own
    // structure around a peak keeps the level it had.
    for (size_t i = 0; i < peak.size(); ++i) {
        peak[i] = peak[i] && (centre[i] || !own[i]) && coarse[i] > kSkirtFactor * floor_level[i];
    }
    *reshaped = peak;

    // The whole image's periodogram (mean removed), smoothed along both axes.
    const size_t count = static_cast<size_t>(rows) * cols;
    double mean = 0.0;
    for (double p : image.pixels) mean += p;
    mean /= static_cast<double>(count);
    std::vector<double> centred(count);
    for (size_t i = 0; i < count; ++i) centred[i] = image.pixels[i] - mean;
    const std::vector<std::complex<double>> f = fft2(centred.data(), rows, cols);
    // The jumps across the image's borders (which the transform takes as
    // periodic) would add a bright cross along both frequency axes: take
    // off the smooth image whose Laplacian holds just those jumps.
    std::vector<double> jumps(count, 0.0);
    for (uint32_t x = 0; x < cols; ++x) {
        const size_t c = static_cast<size_t>(rows) * x;
        const double d = centred[c + rows - 1] - centred[c];
        jumps[c] += d;
        jumps[c + rows - 1] -= d;
    }
    for (uint32_t u = 0; u < rows; ++u) {
        const size_t last = u + static_cast<size_t>(rows) * (cols - 1);
        const double d = centred[last] - centred[u];
        jumps[u] += d;
        jumps[last] -= d;
    }
    const std::vector<std::complex<double>> g = fft2(jumps.data(), rows, cols);
    std::vector<double> smooth(count);
    for (uint32_t x = 0; x < cols; ++x) {
        for (uint32_t u = 0; u < rows; ++u) {
            const size_t i = u + static_cast<size_t>(rows) * x;
            const double laplacian = 2.0 * std::cos(2.0 * kPi * u / rows) + 2.0 * std::cos(2.0 * kPi * x / cols) - 4.0;
            const std::complex<double> periodic = i == 0 ? f[i] : f[i] - g[i] / laplacian;
            smooth[i] = std::norm(periodic) / static_cast<double>(count);
        }
    }
    const int radius = 6;
    std::vector<double> taps(2 * radius + 1);
    double tap_sum = 0.0;
    for (int d = -radius; d <= radius; ++d) {
        taps[d + radius] = std::exp(-0.5 * d * d / (kPeakSmoothing * kPeakSmoothing));
        tap_sum += taps[d + radius];
    }
    double blur = 0.0;  // the smoothing's variance (its taps end at two widths)
    for (int d = -radius; d <= radius; ++d) {
        taps[d + radius] /= tap_sum;
        blur += d * d * taps[d + radius];
    }
    std::vector<double> tmp(count);
    for (uint32_t x = 0; x < cols; ++x) {
        for (uint32_t u = 0; u < rows; ++u) {
            double s = 0.0;
            for (int d = -radius; d <= radius; ++d) {
                const uint32_t uu = static_cast<uint32_t>((static_cast<int64_t>(u) + d + 64 * static_cast<int64_t>(rows)) % rows);
                s += taps[d + radius] * smooth[uu + static_cast<size_t>(rows) * x];
            }
            tmp[u + static_cast<size_t>(rows) * x] = s;
        }
    }
    for (uint32_t x = 0; x < cols; ++x) {
        for (uint32_t u = 0; u < rows; ++u) {
            double s = 0.0;
            for (int d = -radius; d <= radius; ++d) {
                const uint32_t xx = static_cast<uint32_t>((static_cast<int64_t>(x) + d + 64 * static_cast<int64_t>(cols)) % cols);
                s += taps[d + radius] * tmp[u + static_cast<size_t>(rows) * xx];
            }
            smooth[u + static_cast<size_t>(rows) * x] = s;
        }
    }
    // Its smooth level: cell means, their 5 x 5 median, interpolated.
    std::vector<double> cells(coarse.size(), 0.0);
    std::vector<double> members(coarse.size(), 0.0);
    for (uint32_t x = 0; x < cols; ++x) {
        const uint32_t cx = cell_of(x, cols, b);
        for (uint32_t u = 0; u < rows; ++u) {
            const size_t c = cell_of(u, rows, b) + static_cast<size_t>(b) * cx;
            cells[c] += smooth[u + static_cast<size_t>(rows) * x];
            members[c] += 1.0;
        }
    }
    for (size_t c = 0; c < cells.size(); ++c) cells[c] /= members[c];
    const std::vector<double> image_level = interpolate(level_outside(median5(cells, b), peak, b), b, rows, cols);
    const std::vector<double> noise_level = interpolate(floor_level, b, rows, cols);

    double kept = 0.0;
    double floor = 0.0;
    double shape = 0.0;
    for (uint32_t x = 0; x < cols; ++x) {
        const uint32_t cx = cell_of(x, cols, b);
        for (uint32_t u = 0; u < rows; ++u) {
            if (!peak[cell_of(u, rows, b) + static_cast<size_t>(b) * cx]) continue;
            const size_t i = u + static_cast<size_t>(rows) * x;
            kept += (*psd)[i];
            floor += noise_level[i];
            shape += peak_excess(smooth[i], image_level[i]);
        }
    }
    if (!(shape > 0.0)) return 0.0;
    *beneath = *psd;
    const double gain = std::max(kept - floor, 0.0) / shape;
    for (uint32_t x = 0; x < cols; ++x) {
        const uint32_t cx = cell_of(x, cols, b);
        for (uint32_t u = 0; u < rows; ++u) {
            if (!peak[cell_of(u, rows, b) + static_cast<size_t>(b) * cx]) continue;
            const size_t i = u + static_cast<size_t>(rows) * x;
            (*psd)[i] = noise_level[i] + gain * peak_excess(smooth[i], image_level[i]);
            (*beneath)[i] = noise_level[i];
        }
    }
    fit_peaks(peak, centre, b, rows, cols, blur, smooth, image_level, noise_level, psd, beneath);
    double total = 0.0;
    for (double v : *psd) total += v;
    return total > 0.0 ? std::max(kept - floor, 0.0) / total : 0.0;
}

// The floor beside narrow-band noise. Outside the cells a noise peak was
// found in, the block spectrum holds what the flattest blocks keep: noise
// where there is any, and otherwise the image's own finer structure, which
// a textured image has in every block. Beside a narrow peak, the known
// spectrum leaves all but the peak's frequencies untouched, so a floor that
// is image costs much (brick under stripes: 38 instead of 52 dB). A noise
// floor is Gaussian, so the fourth cumulant of its periodogram values over
// the blocks is near zero. Its median over the frequencies above
// kLowRadius reads 0.04-0.12 on the benchmark's images under white noise
// of 0.1 (up to 0.43 at 0.05, where an edge-rich image shows through),
// while the noise-free images read 0.46 (gravel) to 5.8 (camera). Where
// the median outside the reshaped cells exceeds kImageFloorExcess, the
// floor is the image's and the spectrum keeps only the peaks: `beneath`
// (the floor refine_peaks put under them, and the whole spectrum
// elsewhere) is taken off.
const double kImageFloorExcess = 0.45;

void drop_image_floor(const std::vector<double>& periodograms, size_t n_blocks, uint32_t b,
                      const std::vector<char>& reshaped, const std::vector<double>& beneath, std::vector<double>* psd) {
    const size_t bins = static_cast<size_t>(b) * b;
    std::vector<double> excess;
    for (size_t f = 1; f < bins; ++f) {
        if (reshaped[f] || bin_radius(f, b) <= kLowRadius) continue;
        double m2 = 0.0;
        double m4 = 0.0;
        for (size_t i = 0; i < n_blocks; ++i) {
            const double p = periodograms[i * bins + f];
            m2 += p;
            m4 += p * p;
        }
        m2 /= static_cast<double>(n_blocks);
        m4 /= static_cast<double>(n_blocks);
        if (m2 > 0.0) excess.push_back((m4 - 2.0 * m2 * m2) / (m2 * m2));
    }
    if (excess.empty() || !(order_statistic(excess, excess.size() / 2) > kImageFloorExcess)) return;
    for (size_t i = 0; i < psd->size(); ++i) (*psd)[i] = std::max((*psd)[i] - beneath[i], 0.0);
}

// The mean over `cells` of the fourth cumulant of the periodogram values
// of `blocks`, each over its second moment squared (0 for Gaussian noise).
double mean_excess(const std::vector<double>& periodograms, const std::vector<size_t>& blocks, size_t bins,
                   const std::vector<size_t>& cells) {
    double sum = 0.0;
    for (size_t f : cells) {
        double m2 = 0.0;
        double m4 = 0.0;
        for (size_t i : blocks) {
            const double p = periodograms[i * bins + f];
            m2 += p;
            m4 += p * p;
        }
        m2 /= static_cast<double>(blocks.size());
        m4 /= static_cast<double>(blocks.size());
        if (m2 > 0.0) sum += (m4 - 2.0 * m2 * m2) / (m2 * m2);
    }
    return cells.empty() ? 0.0 : sum / static_cast<double>(cells.size());
}

// A regular pattern of the image's own (the mortar of a brick wall) stands
// out of the block spectrum as peaks much like narrow-band noise does, also
// beside a noise peak, where the power-share test of estimate_noise cannot
// tell them apart. Each group of neighbouring outstanding cells is judged on
// its own: where the fourth cumulant of its periodogram values is that of a
// pattern whose strength varies from block to block (above kPatternExcess),
// its cells take the level around them, so only noise peaks remain for
// refine_peaks. Only the usable `blocks` are judged: blocks of strong
// structure (edges) would give a noise peak under them a large excess too.
// Flattened cells are marked in `pattern`, those of groups judged noise in
// `noise`: once a pattern's strongest cells are flattened, its weaker
// neighbours stand out in turn (a ridge of mortar cells along an axis), so
// the caller runs this again while it flattens anything; a later group
// that holds a cell once judged noise stays noise, so the widening groups
// of a textured image never swallow the noise peak. Returns whether any
// group was flattened.
bool flatten_pattern_peaks(const std::vector<double>& periodograms, const std::vector<size_t>& blocks, uint32_t b,
                           std::vector<double>* coarse, std::vector<char>* pattern, std::vector<char>* noise) {
    const size_t bins = static_cast<size_t>(b) * b;
    const std::vector<double> level = median5(*coarse, b);
    std::vector<char> centre(bins, 0);
    std::vector<char> reach(bins, 0);
    bool any = false;
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < b; ++u) {
            const size_t i = u + static_cast<size_t>(b) * v;
            if ((std::min(u, b - u) > 2 || std::min(v, b - v) > 2) && (*coarse)[i] > kPeakFactor * level[i]) {
                centre[i] = 1;
                any = true;
                for (uint32_t a = 0; a < 2 * kPeakReach + 1; ++a)
                    for (uint32_t c = 0; c < 2 * kPeakReach + 1; ++c)
                        reach[(u + b + a - kPeakReach) % b + static_cast<size_t>(b) * ((v + b + c - kPeakReach) % b)] = 1;
            }
        }
    }
    if (!any) return false;
    const std::vector<double> floor_level = level_outside(*coarse, reach, b);
    bool flattened = false;
    // Groups: neighbouring centres (8-neighbours, periodic). Joined through
    // their skirts instead, a pattern's peaks and a noise peak beside them
    // would be judged as one.
    for (const std::vector<size_t>& centres : neighbour_groups(centre, b)) {
        bool kept = false;
        for (size_t i : centres) kept = kept || (*noise)[i];
        if (kept || !(mean_excess(periodograms, blocks, bins, centres) > kPatternExcess)) {
            for (size_t i : centres) (*noise)[i] = 1;
        } else {
            for (size_t i : centres) {
                (*coarse)[i] = std::min((*coarse)[i], floor_level[i]);
                (*pattern)[i] = 1;
            }
            flattened = true;
        }
    }
    return flattened;
}

}  // namespace
}  // namespace swdenoise

namespace sw {
namespace {

NoiseEstimate estimate(const Image& image, const NoiseEstimateOptions& options, const Progress& progress,
                       const std::vector<char>& clipped) {
    using swdenoise::fail;
    swdenoise::check_image(image, 16, "estimating the noise");
    const auto report = [&](double fraction) {
        if (progress && !progress(fraction, "noise estimate")) {
            fail("shapewiener:denoise:interrupted", "the noise estimate was cancelled.",
                 ErrorCode::kInterrupted);
        }
    };
    report(0.0);

    const uint32_t rows = image.rows;
    const uint32_t cols = image.cols;
    const uint32_t shorter = std::min(rows, cols);
    const uint32_t b = shorter >= 64 ? 32 : shorter >= 32 ? 16 : 8;
    const size_t bins = static_cast<size_t>(b) * b;

    // Separable window (the Hann window without its zero end points) and
    // the periodogram's normalisation: white noise of variance s^2 reads s^2.
    std::vector<double> w(b);
    double w_sum = 0.0;
    double w_sq = 0.0;
    for (uint32_t i = 0; i < b; ++i) {
        w[i] = 0.5 - 0.5 * std::cos(2.0 * swdenoise::kPi * (i + 1) / (b + 1));
        w_sum += w[i];
        w_sq += w[i] * w[i];
    }
    const double norm = 1.0 / (w_sq * w_sq);
    const double weight_total = w_sum * w_sum;
    std::vector<double> ramp(b);  // centred position along an axis
    double ramp_sq = 0.0;
    for (uint32_t i = 0; i < b; ++i) {
        ramp[i] = static_cast<double>(i) - 0.5 * (b - 1);
        ramp_sq += w[i] * ramp[i] * ramp[i];
    }
    const double ramp_norm = ramp_sq * w_sum;

    const std::vector<uint32_t> r0 = swdenoise::block_starts(rows, b);
    const std::vector<uint32_t> c0 = swdenoise::block_starts(cols, b);
    const size_t all_blocks = r0.size() * c0.size();
    std::vector<double> periodograms(all_blocks * bins);

    // One block: its periodogram into its own slot, so any split of the
    // blocks among threads gives the same bits.
    const auto one_block = [&](size_t index, std::vector<double>& block) {
        const uint32_t top = r0[index % r0.size()];
        const uint32_t left = c0[index / r0.size()];
        // The window-weighted least-squares plane (the window is symmetric,
        // so the constant and the two ramps are fitted one by one).
        double mean = 0.0;
        double slope_y = 0.0;
        double slope_x = 0.0;
        for (uint32_t x = 0; x < b; ++x) {
            const double* column = image.pixels.data() + static_cast<size_t>(left + x) * rows + top;
            for (uint32_t y = 0; y < b; ++y) {
                const double wz = w[y] * w[x] * column[y];
                mean += wz;
                slope_y += ramp[y] * wz;
                slope_x += ramp[x] * wz;
            }
        }
        mean /= weight_total;
        slope_y /= ramp_norm;
        slope_x /= ramp_norm;
        for (uint32_t x = 0; x < b; ++x) {
            const double* column = image.pixels.data() + static_cast<size_t>(left + x) * rows + top;
            for (uint32_t y = 0; y < b; ++y) {
                block[y + static_cast<size_t>(b) * x] =
                    w[y] * w[x] * (column[y] - mean - slope_y * ramp[y] - slope_x * ramp[x]);
            }
        }
        const std::vector<std::complex<double>> spectrum = swdenoise::fft2(block.data(), b, b);
        double* out = periodograms.data() + index * bins;
        for (size_t f = 0; f < bins; ++f) out[f] = std::norm(spectrum[f]) * norm;
    };

    RunOptions run;
    run.threads = options.threads;
    const unsigned threads =
        static_cast<unsigned>(std::min<size_t>(requested_threads(run), std::max<size_t>(1, all_blocks / 16)));
    const size_t rounds = 8;
    for (size_t round = 0; round < rounds; ++round) {
        const size_t begin = all_blocks * round / rounds;
        const size_t end = all_blocks * (round + 1) / rounds;
        swdenoise::run_lanes(threads, [&](unsigned t) {
            std::vector<double> block(bins);
            for (size_t i = begin + (end - begin) * t / threads; i < begin + (end - begin) * (t + 1) / threads; ++i) {
                one_block(i, block);
            }
        });
        report(0.8 * static_cast<double>(round + 1) / rounds);
    }

    // Blocks over 1/32 clipped are left out of everything below while at
    // least kMinChosen others remain: their noise is cut off, so they look
    // flattest, and their many equal values are no Gaussian noise either.
    size_t n_blocks = all_blocks;
    if (!clipped.empty()) {
        std::vector<size_t> kept;
        for (size_t i = 0; i < all_blocks; ++i) {
            const uint32_t top = r0[i % r0.size()];
            const uint32_t left = c0[i / r0.size()];
            size_t count = 0;
            for (uint32_t x = 0; x < b; ++x) {
                const char* column = clipped.data() + static_cast<size_t>(left + x) * rows + top;
                for (uint32_t y = 0; y < b; ++y) count += column[y] != 0;
            }
            if (count * 32 <= bins) kept.push_back(i);
        }
        if (kept.size() >= swdenoise::kMinChosen && kept.size() < all_blocks) {
            for (size_t j = 0; j < kept.size(); ++j) {
                std::copy_n(periodograms.begin() + static_cast<std::ptrdiff_t>(kept[j] * bins), bins,
                            periodograms.begin() + static_cast<std::ptrdiff_t>(j * bins));
            }
            n_blocks = kept.size();
            periodograms.resize(n_blocks * bins);
        }
    }

    // Per frequency, a low quantile over the blocks: the yardstick against
    // which each block's flatness is judged.
    std::vector<double> yardstick(bins);
    {
        std::vector<double> column(n_blocks);
        const size_t k = static_cast<size_t>(swdenoise::kQuantile * static_cast<double>(n_blocks - 1));
        for (size_t f = 0; f < bins; ++f) {
            for (size_t i = 0; i < n_blocks; ++i) column[i] = periodograms[i * bins + f];
            yardstick[f] = swdenoise::order_statistic(column, k);
        }
    }
    // A block's statistic: the median over the frequencies (DC left out)
    // of log(periodogram / yardstick). The median keeps narrow noise peaks,
    // whose strength wanders over the image, from steering the choice.
    std::vector<double> statistic(n_blocks);
    {
        std::vector<double> logs;
        logs.reserve(bins);
        for (size_t i = 0; i < n_blocks; ++i) {
            logs.clear();
            const double* p = periodograms.data() + i * bins;
            for (size_t f = 1; f < bins; ++f) {
                if (yardstick[f] > 0.0) {
                    logs.push_back(p[f] > 0.0 ? std::log(p[f] / yardstick[f]) : -1e300);
                }
            }
            statistic[i] = logs.empty() ? 0.0 : swdenoise::order_statistic(logs, logs.size() / 2);
        }
    }
    std::vector<size_t> order(n_blocks);
    for (size_t i = 0; i < n_blocks; ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t c) {
        return statistic[a] < statistic[c] || (statistic[a] == statistic[c] && a < c);
    });
    const size_t chosen = std::min(
        n_blocks, std::max(swdenoise::kMinChosen, static_cast<size_t>(std::lround(swdenoise::kChosenShare * static_cast<double>(n_blocks)))));
    std::vector<size_t> picked(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(chosen));
    std::sort(picked.begin(), picked.end());

    std::vector<double> spectrum(bins, 0.0);
    for (size_t i : picked) {
        const double* p = periodograms.data() + i * bins;
        for (size_t f = 0; f < bins; ++f) spectrum[f] += p[f];
    }
    const double scale = 1.0 / (static_cast<double>(chosen) * swdenoise::kChoiceBias);
    for (double& v : spectrum) v *= scale;
    swdenoise::cap_by_cumulant(periodograms, n_blocks, b, &spectrum);
    // Removing each block's plane empties DC: take its neighbours'.
    spectrum[0] = 0.25 * (spectrum[1] + spectrum[b - 1] + spectrum[b] + spectrum[bins - b]);
    const double limit = statistic[order[chosen - 1]] + swdenoise::kUsableMargin;
    std::vector<size_t> usable;
    std::vector<size_t> all(n_blocks);
    for (size_t i = 0; i < n_blocks; ++i) {
        all[i] = i;
        if (statistic[i] <= limit) usable.push_back(i);
    }
    // The image's own cells: those far from Gaussian, and the pattern
    // peaks flattened below.
    std::vector<char> pattern(bins, 0);
    std::vector<char> noise_cells(bins, 0);
    for (size_t f = 1; f < bins; ++f) {
        const std::vector<size_t> one(1, f);
        pattern[f] = swdenoise::mean_excess(periodograms, usable, bins, one) > swdenoise::kSkirtExcess;
    }
    for (int pass = 0; pass < swdenoise::kPatternPasses; ++pass) {
        if (!swdenoise::flatten_pattern_peaks(periodograms, usable, b, &spectrum, &pattern, &noise_cells)) break;
    }
    report(0.9);

    NoiseEstimate result;
    result.rows = rows;
    result.cols = cols;
    result.block = b;
    result.usable_fraction = static_cast<double>(usable.size()) / static_cast<double>(all_blocks);

    // White: the spectrum, smoothed over 5 x 5 neighbouring frequencies,
    // stays within a factor 2 everywhere away from DC.
    {
        double lo = 0.0;
        double hi = 0.0;
        bool first = true;
        for (uint32_t v = 0; v < b; ++v) {
            for (uint32_t u = 0; u < b; ++u) {
                if (u == 0 && v == 0) continue;
                double sum = 0.0;
                for (uint32_t dv = 0; dv < 5; ++dv) {
                    for (uint32_t du = 0; du < 5; ++du) {
                        sum += spectrum[(u + b + du - 2) % b + static_cast<size_t>(b) * ((v + b + dv - 2) % b)];
                    }
                }
                lo = first ? sum : std::min(lo, sum);
                hi = first ? sum : std::max(hi, sum);
                first = false;
            }
        }
        result.white = hi <= 2.0 * lo;
    }

    result.psd = swdenoise::interpolate(spectrum, b, rows, cols);
    const std::vector<double> smooth = result.psd;
    std::vector<size_t> centres;
    std::vector<char> reshaped;
    std::vector<double> beneath;
    const double peak_share =
        swdenoise::refine_peaks(image, spectrum, pattern, b, &result.psd, &centres, &reshaped, &beneath);
    // Without narrow peaks, a spectrum flat above the lowest frequencies is
    // white; so it is with peaks that are the image's pattern.
    if (result.psd == smooth) {
        if (swdenoise::settle_white(&result.psd, rows, cols)) result.white = true;
    } else if (peak_share < swdenoise::kMinorPeakShare &&
               swdenoise::mean_excess(periodograms, all, bins, centres) > swdenoise::kPatternExcess) {
        std::vector<double> flat = smooth;
        if (swdenoise::settle_white(&flat, rows, cols)) {
            result.psd = std::move(flat);
            result.white = true;
        }
    } else {
        swdenoise::drop_image_floor(periodograms, n_blocks, b, reshaped, beneath, &result.psd);
    }
    double total = 0.0;
    for (double v : result.psd) total += v;
    result.sigma = std::sqrt(total / (static_cast<double>(rows) * cols));
    // On a quantised image, noise within a couple of steps is taken as none.
    const double step = swdenoise::quantisation_step(image.pixels);
    if (step > 0.0 && result.sigma < swdenoise::kQuietSteps * step) {
        std::fill(result.psd.begin(), result.psd.end(), 0.0);
        result.sigma = 0.0;
    }
    report(1.0);
    return result;
}

}  // namespace

NoiseEstimate estimate_noise(const Image& image, const NoiseEstimateOptions& options,
                             const Progress& progress) {
    return estimate(image, options, progress, swdenoise::clipped_pixels(image.pixels.data(), image.pixels.size(), 1));
}

}  // namespace sw

namespace swdenoise {

std::vector<char> clipped_pixels(const double* values, size_t count, size_t planes) {
    std::vector<char> marks(count, 0);
    bool any = false;
    for (size_t k = 0; k < planes && count > 0; ++k) {
        const double* v = values + k * count;
        const auto [lo, hi] = std::minmax_element(v, v + count);
        for (const double extreme : {*lo, *hi}) {
            const size_t held = static_cast<size_t>(std::count(v, v + count, extreme));
            if (static_cast<double>(held) < kClippedShare * static_cast<double>(count)) continue;
            for (size_t p = 0; p < count; ++p) {
                if (v[p] == extreme) marks[p] = 1;
            }
            any = true;
        }
    }
    if (!any) marks.clear();
    return marks;
}

sw::NoiseEstimate estimate_noise_unclipped(const sw::Image& image, const sw::NoiseEstimateOptions& options,
                                           const sw::Progress& progress, const std::vector<char>& clipped) {
    return sw::estimate(image, options, progress, clipped);
}

}  // namespace swdenoise
