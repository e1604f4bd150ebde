function varargout = shapewiener_denoise(varargin)
% SHAPEWIENER_DENOISE  Denoise a grey-scale image with white or coloured noise.
%
%   OUT = shapewiener_denoise(Z)
%   [OUT, NOISE] = shapewiener_denoise(Z)
%   OUT = shapewiener_denoise(Z, 'sigma', S)
%   OUT = shapewiener_denoise(Z, 'kernel', K, 'sigma', S)
%   OUT = shapewiener_denoise(Z, 'psd', P)
%   OUT = shapewiener_denoise(RGB, 'channel_covariance', C)
%   OUT = shapewiener_denoise(..., 'preset', NAME, 'threads', T)
%
%   Noise levels are in the units of Z's values as you hold them: a
%   uint8 image's noise in grey levels 0..255, a uint16 image's in
%   0..65535, a double image's in its own units.
%
%   Estimates the clean image from Z, a real full M x K matrix of any
%   numeric class (logical, complex and sparse input is refused); integer
%   values are used as stored, signed ones with their sign. OUT is M x K
%   of Z's class for integer classes (rounded, halves to even, and clipped
%   to the class's range, as the shapewiener program writes integer
%   files), double otherwise, not clipped. The whole denoiser runs in one
%   call: it chooses the adaptive neighbourhoods, builds the filter's
%   arguments and runs it (three passes for the default preset). The same
%   call from Python (shapewiener.denoise) or the shapewiener program
%   gives the same bits.
%
%   Without a noise description the noise is estimated from Z itself
%   (Z at least 16 x 16; see shapewiener_estimate_noise): the call equals
%   shapewiener_denoise(Z, 'psd', NOISE.psd) bit for bit, and NOISE, the
%   second output, is that estimate (sigma, psd, usable_fraction, white,
%   block). A Z whose estimate is all zero (a constant one) comes back
%   unchanged.
%
%   The noise, in Z's units:
%     'sigma', S      white noise of standard deviation S;
%     'kernel', K     with 'sigma': coloured noise S * conv2(w, K) / norm(K(:))
%                     for standard white noise w, so S is again the
%                     per-pixel standard deviation; K is centred at
%                     (floor((rows+1)/2), floor((cols+1)/2));
%     'psd', P        the noise's power spectrum, M x K, DC at P(1, 1), not
%                     shifted, scaled so that white noise of variance s^2
%                     has P == s^2 (mean(P(:)) is the per-pixel variance);
%                     given alone.
%
%   Colour: Z may be M x N x 3 (RGB) or M x N x 4 (RGB and alpha; the
%   alpha plane comes back untouched). The shapes are chosen once on the
%   image's luminance and the noise is followed exactly through the colour
%   transform. 'sigma', 'kernel' and an M x N 'psd' describe the same noise,
%   independently, in every channel; an M x N x 3 'psd' one spectrum per
%   channel;
%     'channel_covariance', C   noise correlated across the channels with
%                     the 3 x 3 per-pixel covariance C (in Z's units
%                     squared); its spatial shape is white, or that of
%                     'kernel' or 'psd' (their scale ignored); no 'sigma'.
%   With no noise given, each colour channel's noise spectrum is estimated
%   from the image.
%   Options:
%     'preset'        'fast' (fixed squares, one pass) or 'default'
%     'threads'       worker threads; 0 (default) takes SHAPEWIENER_THREADS
%                     from the environment or all cores. No option changes
%                     a bit of the result.
%
%   A noise level that cannot be meant for Z's values (larger than their
%   range, below 1e-4 of it, or below 1 on a uint8 image) gives a warning
%   with identifier shapewiener:noise:implausible that names the likely
%   mistake; the call still runs.
%
%   Ctrl-C stops a running call. Errors have identifiers
%   shapewiener:<what>:<reason>, e.g. shapewiener:noise:missing (a kernel
%   without sigma), shapewiener:image:tooSmall (no noise given, Z below
%   16 x 16),
%   shapewiener:noise:conflict, shapewiener:noise:psdSize (P's size must
%   be Z's), shapewiener:options:unknown, shapewiener:options:preset,
%   shapewiener:image:notReal, shapewiener:image:notFinite,
%   shapewiener:image:tooLarge (more than 2^31 - 1 pixels, or more memory
%   than is available).
%
%   Example:
%     [x, y] = meshgrid(linspace(0, 1, 128));      % a test image: a disc on a
%     z = 0.2 + 0.3 * y + 0.4 * ((x - 0.5).^2 + (y - 0.5).^2 < 0.1);  % ramp
%     % (or any grey-scale image: z = double(imread(file)) / 255)
%     k = [1 2 1; 2 4 2; 1 2 1];                   % noise colouring kernel
%     n = conv2(randn(size(z)), k, 'same') / norm(k(:));
%     noisy = z + 0.1 * n;
%     [blind, noise] = shapewiener_denoise(noisy);  % the noise estimated
%     out = shapewiener_denoise(noisy, 'kernel', k, 'sigma', 0.1);
%     fast = shapewiener_denoise(noisy, 'sigma', 0.1, 'preset', 'fast');
%
%   See also shapewiener_estimate_noise, shapewiener (the raw filter module).
%
%   The function is a compiled MEX file; this file holds its help text.

error('shapewiener:notBuilt', ...
      ['shapewiener_denoise: the compiled MEX file is missing; only its help ' ...
       'text was found (%s). Build it with build_shapewiener, or install the ' ...
       'package with pkg install.'], mfilename('fullpath'));
