function noise = shapewiener_estimate_noise(z, varargin)
% SHAPEWIENER_ESTIMATE_NOISE  Estimate an image's noise: its level and spectrum.
%
%   NOISE = shapewiener_estimate_noise(Z)
%   NOISE = shapewiener_estimate_noise(Z, 'threads', T)
%
%   Estimates the noise of Z (a real full M x K matrix of any numeric
%   class, at least 16 x 16) from Z itself, white or coloured, taking it to
%   be stationary: one power spectrum for the whole image. Values are used
%   as stored, so a uint8 image's noise comes out in grey levels 0..255.
%   NOISE is a struct:
%     sigma            the per-pixel standard deviation, in Z's units
%     psd              the power spectrum, M x K double, DC at psd(1, 1),
%                      not shifted, mean(psd(:)) == sigma^2: what
%                      shapewiener_denoise(Z, 'psd', NOISE.psd) takes
%     usable_fraction  the share of Z that looked like noise alone (small
%                      on an image with few flat parts: then texture may
%                      have been read as noise)
%     white            true when the spectrum is flat within its sampling
%                      error
%     block            the side of the blocks the spectrum was read from
%
%   A colour image (M x N x 3, or M x N x 4 with its alpha ignored) gets
%   the noise as one spatial shape times a channel covariance, the struct:
%     sigma            1 x 3, each channel's standard deviation
%     psd              M x N x 3, each channel's power spectrum
%     covariance       3 x 3, the per-pixel covariance of R, G and B's noise
%     shape            M x N, the spatial spectrum's shape, mean 1
%     usable_fraction, white   as above, over the channels
%   and shapewiener_denoise(Z) equals shapewiener_denoise(Z, 'psd',
%   NOISE.shape, 'channel_covariance', NOISE.covariance) bit for bit.
%
%   shapewiener_denoise(Z) without a noise description uses this estimate,
%   with the same bits as shapewiener_denoise(Z, 'psd', NOISE.psd). The
%   result does not depend on 'threads'. Ctrl-C stops the call. Errors:
%   shapewiener:image:tooSmall, shapewiener:image:notReal,
%   shapewiener:image:notFinite, and those of shapewiener_denoise.
%
%   Example:
%     z = 0.5 + 0.1 * randn(128);
%     noise = shapewiener_estimate_noise(z);
%     printf('sigma %.3f, white %d\n', noise.sigma, noise.white);
%
%   See also shapewiener_denoise.

noise = shapewiener_denoise(z, 'estimateOnly', true, varargin{:});
end
