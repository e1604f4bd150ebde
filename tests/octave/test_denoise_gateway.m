function test_denoise_gateway()
  % shapewiener_denoise: one call on a small image in every noise form and
  % classes given as values (the refused calls are in test_hostile.m).
  if exist('shapewiener_denoise') ~= 3
    if strcmp(getenv('CI'), 'true')
      error('shapewiener_denoise.mex was not built');
    end
    printf('SKIPPED test_denoise_gateway: shapewiener_denoise.mex was not built\n');
    return;
  end
  randn('state', 3);
  [x, y] = meshgrid(linspace(0, 1, 40), linspace(0, 1, 32));
  clean = 0.2 + 0.6 * (x > 0.5) + 0.1 * y;
  k = [1 2 1; 2 4 2; 1 2 1];
  noisy = clean + 0.05 * conv2(randn(32, 40), k, 'same') / norm(k(:));
  white = shapewiener_denoise(noisy, 'sigma', 0.05, 'preset', 'fast');
  coloured = shapewiener_denoise(noisy, 'kernel', k, 'sigma', 0.05, 'threads', 1);
  assert(isa(coloured, 'double') && isequal(size(coloured), [32, 40]));
  assert(isequal(size(white), [32, 40]) && all(isfinite(white(:))));
  psd = 0.05^2 * ones(32, 40);
  from_psd = shapewiener_denoise(noisy, 'psd', psd, 'preset', 'fast');
  assert(max(abs(from_psd(:) - white(:))) < 1e-6);
  % Integer classes: values as stored, noise in their units, the result in
  % the class (rounded, clipped), signed values with their sign.
  z8 = uint8(255 * min(max(noisy, 0), 1));
  for z = {z8, int8(double(z8) - 128), uint16(z8) * 200}
    z = z{1};
    out = shapewiener_denoise(z, 'sigma', 12, 'preset', 'fast');
    ref = shapewiener_denoise(double(z), 'sigma', 12, 'preset', 'fast');
    assert(strcmp(class(out), class(z)) && isequal(out, cast(round(ref), class(z))), class(z));
  end
  % Without a noise description: the estimate (alone, a struct), then the
  % denoiser with its spectrum, the same bits.
  [blind, noise] = shapewiener_denoise(z8, 'preset', 'fast');
  alone = shapewiener_estimate_noise(z8, 'threads', 1);
  assert(isequal(noise, alone) && isequal(size(alone.psd), size(z8)) && islogical(alone.white));
  assert(abs(alone.sigma - sqrt(mean(alone.psd(:)))) < 1e-12 * alone.sigma);
  assert(isequal(blind, shapewiener_denoise(z8, 'psd', alone.psd, 'preset', 'fast')));
  % A sigma meant for values on [0, 1]: a warning with an identifier, and
  % the call still runs (the warning shows in the log).
  lastwarn('');
  state = warning('on', 'shapewiener:noise:implausible');
  out = shapewiener_denoise(z8, 'sigma', 0.1, 'preset', 'fast');
  [message, id] = lastwarn();
  warning(state);
  assert(strcmp(id, 'shapewiener:noise:implausible') && ~isempty(strfind(message, '25.5')));
  assert(isa(out, 'uint8') && isequal(size(out), size(z8)));
  % Colour, M x N x 4 uint8: the class kept, alpha untouched. (Every noise
  % form against the other front ends: python/tests/test_colour.py.)
  rgba = cat(3, z8, flipud(z8), 255 - z8, uint8(200 * ones(32, 40)));
  out = shapewiener_denoise(rgba, 'sigma', 12, 'preset', 'fast');
  assert(isa(out, 'uint8') && isequal(size(out), [32, 40, 4]) && isequal(out(:, :, 4), rgba(:, :, 4)));
  % A colour image's estimate alone: per channel and the channel
  % covariance, the noise the blind colour call uses (same bits).
  rgb = rgba(:, :, 1:3);
  e = shapewiener_estimate_noise(rgb, 'threads', 1);
  assert(isequal(size(e.psd), [32, 40, 3]) && isequal(size(e.covariance), [3, 3]));
  assert(max(abs(e.sigma - sqrt(diag(e.covariance))')) < 1e-12 * max(e.sigma));
  assert(isequal(e.psd(:, :, 2), e.shape * e.covariance(2, 2)) && islogical(e.white));
  assert(isequal(shapewiener_denoise(rgb, 'preset', 'fast'), ...
                 shapewiener_denoise(rgb, 'psd', e.shape, 'channel_covariance', e.covariance, 'preset', 'fast')));
end
