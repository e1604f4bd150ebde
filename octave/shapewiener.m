function varargout = shapewiener(varargin)
% SHAPEWIENER  Shape-adaptive Wiener filter for images with coloured noise.
%
%   OUT = shapewiener(ScaleSet, DirectionScaleMap, TransformBank, ...
%                     SectorMaskBank, [], [], N, NoisePsd, NoisyImage, ...
%                     ProcessingList, NoiseLevelFactor, [], H, PilotImage, ...
%                     WienerVarianceFactor, CoverageThreshold)
%
%   Filters a grey-scale image whose noise is correlated (coloured), with
%   intensities in [0, 1]. For every pixel of a processing list the filter
%   takes an adaptive neighbourhood (the union of eight sectors chosen by
%   the pixel's scales in eight directions), transforms the noisy values
%   on that shape with a separable shape-adaptive transform, attenuates
%   every coefficient by an empirical Wiener factor computed from a pilot
%   estimate and from the coefficient's own noise level (derived from the
%   noise power spectrum), transforms back, clips to [0, 1] and averages
%   the overlapping shape estimates with weights inversely proportional to
%   their variance.
%
%   It is the compiled inner stage of a larger denoising script: the
%   caller computes the scales, the sector masks, the transform matrices,
%   the noise spectrum, the pilot estimate and the processing list, and
%   passes them in. M x K is the size of NoisyImage; W = 2*H-1 is the side
%   of the square box around a pixel.
%
%   Arguments (numbered from 1; every one of the sixteen must be passed):
%
%    1 ScaleSet       double vector, L elements. The scale lengths; each
%                     element that DirectionScaleMap selects must round
%                     to an integer in 1..H (see Rounding below).
%    2 DirectionScaleMap
%                     uint8, M x K x 8. For each pixel and each of the
%                     eight directions (planes 1..8), a 1-based index into
%                     ScaleSet, 1..L.
%    3 TransformBank  cell array of at least W cells. Cell L holds the
%                     L x L real double matrix of the one-dimensional
%                     transform of length L; row f is the f-th basis
%                     vector. Cells after W are not used.
%    4 SectorMaskBank cell array of H*H*8 cells (normally H x H x 8). Cell
%                     {a, b, d} is the W x W uint8 mask of sector d for the
%                     scales a and b; a non-zero byte puts the pixel at
%                     that offset from the centre (H, H) into the sector.
%                     Sector d uses the scales of the direction planes
%                     mod(d+3, 8)+1 (a) and mod(d+4, 8)+1 (b).
%    5, 6             ignored; any value (pass []).
%    7 N              double scalar. Side of the square noise-spectrum
%                     grid; an even integer with N >= W. N = 32 uses a
%                     fixed 32-point FFT, other sizes a general DFT.
%    8 NoisePsd       double, N x N. Noise power spectrum in units of
%                     variance: white noise of variance s^2 is given as
%                     s^2 * ones(N). Element (u+1, v+1) is frequency
%                     (u, v); only rows 1..N/2+1 are read.
%    9 NoisyImage     real double, M x K. The observed image.
%   10 ProcessingList int32, (M*K) x 2. Row i is (pixel, key): a linear
%                     pixel index in 1..M*K and a ShapeKey. The rows are
%                     processed in order. Consecutive rows with the same
%                     key must have identical shapes: the shape's noise
%                     levels are computed at a key change and reused. A
%                     key of 0 on the first processed row counts as a key
%                     change. Pixels may repeat.
%   11 NoiseLevelFactor
%                     double scalar; multiplies every noise level.
%   12                ignored; any value (pass []).
%   13 H              double scalar. The largest scale, rounded to an
%                     integer >= 1.
%   14 PilotImage     real double, M x K. A pilot estimate of the clean
%                     image, used for the Wiener factors.
%   15 WienerVarianceFactor
%                     double scalar; multiplies the noise variance in the
%                     Wiener factors.
%   16 CoverageThreshold
%                     double scalar, rounded. A row whose
%                     pixel has already been covered by more than this
%                     many shapes is skipped; Inf, NaN or a value of 65535
%                     or more never skips.
%
%   Rounding: N, H, CoverageThreshold and the ScaleSet elements are
%   rounded as x + 0.5 truncated toward zero, computed in double: 2.5
%   gives 3 and 3.49 gives 3, but 0.49999999999999994 gives 1 (the sum
%   rounds up to exactly 1); every x <= -0.5 gives 0 and NaN gives 2^31.
%
%   Scalars are read from their first element. NoiseLevelFactor,
%   WienerVarianceFactor and CoverageThreshold may be any real value,
%   including 0, negative values, Inf and NaN, and are used unchanged;
%   N and H must be finite. With NoiseLevelFactor 0 every estimate has
%   variance 0, hence infinite weight, and the output is all NaN; to
%   switch the shrinkage off, pass WienerVarianceFactor 0 instead.
%
%   Output:
%   OUT is a real M x K double matrix: the variance-weighted mean of the
%   clipped shape estimates covering each pixel. A pixel that no processed
%   shape covered is NaN.
%
%   Side effect on the inputs:
%   NoisyImage and PilotImage are changed in place by a tiny dither that
%   breaks ties: the pixel with (1-based) linear index q gets
%   mod(M*K - q, 256) * 3e-17 added in NoisyImage and
%   (mod(M*K - q, 256) + 13) * 3e-17 in PilotImage. The change is visible
%   afterwards in every variable that shares the data of those arrays, and
%   a second call on the same arrays dithers them again. That includes a
%   numeric literal in the caller's own function code that the argument
%   shares its data with: passing a constant written in a function, such
%   as z = [0.5 0.5; 0.5 0.5], can change that constant for the function's
%   later runs. Pass copies that share nothing (for example
%   NoisyImage + 0) if you need the originals.
%   If NoisyImage and PilotImage share their data, both amounts go into
%   the one array. (In Octave a range such as 0:0.1:1 stores no elements;
%   it is converted for the call and keeps its values.)
%
%   Errors:
%   The arguments are checked before anything is changed. A call
%   that breaks the rules above raises an error with the identifier
%   shapewiener:<argument>:<reason>, for example
%   shapewiener:ProcessingList:pixelOutOfRange or
%   shapewiener:NoisyImage:notDouble, and leaves every input unchanged.
%   <argument> is the name used above, with DftSize for N, MaxScale for H,
%   nrhs / nlhs for the number of inputs / outputs, and sizes when the
%   working memory of the call would exceed 4 GiB. The reasons are:
%   tooFew, tooMany, notDouble, notUint8, notInt32, complex, sparse, size,
%   empty, notFinite, outOfRange, tooSmall, odd, notVector, tooLarge,
%   notCell, tooFewCells, cellCount, emptyCell (an unset cell: MATLAB
%   leaves the cells of cell(n) unset, while Octave fills them with [],
%   which is reported as notDouble, notUint8 or size), pixelOutOfRange,
%   indexOutOfRange (a DirectionScaleMap byte outside 1..L) and
%   scaleOutOfRange (a selected scale outside 1..H).
%
%   Threads: the call runs on every hardware thread, with the same bits as
%   on one. Set the environment variable SHAPEWIENER_THREADS (a whole
%   number, e.g. setenv('SHAPEWIENER_THREADS', '1')) to choose the count.
%   Ctrl-C stops a running call within a fraction of a second.
%
%   Example (square neighbourhoods of side 3, DCT bank, white noise):
%     M = 16; K = 16; H = 2; W = 2*H - 1; N = 32; sigma = 0.05;
%     clean = repmat(linspace(0.2, 0.8, K), M, 1);
%     noisy = clean + sigma * randn(M, K);
%     bank = cell(W, 1);
%     for len = 1:W
%       [s, f] = meshgrid(0:len-1);
%       t = cos(pi * (2*s + 1) .* f / (2*len)) * sqrt(2/len);
%       t(1, :) = sqrt(1/len);
%       bank{len} = t;
%     end
%     masks = cell(H, H, 8);
%     [dj, di] = meshgrid(abs((1:W) - H));
%     for d = 1:8, for b = 1:H, for a = 1:H
%       masks{a, b, d} = uint8(max(di, dj) <= min(a, b) - 1);
%     end, end, end
%     % One key per shape: all squares are alike except where the image
%     % border cuts them, so the pixels are grouped by how it cuts their
%     % box. (A key per pixel would recompute the noise levels at every
%     % pixel and make the call about a hundred times slower.)
%     [r, c] = ndgrid(1:M, 1:K);
%     cut = [min(r(:), H), min(M - r(:) + 1, H), min(c(:), H), min(K - c(:) + 1, H)];
%     [~, ~, key] = unique(cut, 'rows');
%     [key, order] = sort(key);
%     list = int32([order, key]);
%     out = shapewiener(H, ones(M, K, 8, 'uint8'), bank, masks, [], [], ...
%                       N, sigma^2 * ones(N), noisy + 0, list, 1, [], H, ...
%                       noisy + 0, 1, Inf);
%
%   The function is a compiled MEX file; this file holds its help text.

error('shapewiener:notBuilt', ...
      ['shapewiener: the compiled MEX file is missing; only its help text ' ...
       'was found (%s). Build it with build_shapewiener, or install the ' ...
       'package with pkg install.'], mfilename('fullpath'));
