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
  assert(mean((coloured(:) - clean(:)).^2) < mean((noisy(:) - clean(:)).^2) / 2);
  assert(isequal(size(white), [32, 40]) && all(isfinite(white(:))));
  psd = 0.05^2 * ones(32, 40);
  from_psd = shapewiener_denoise(noisy, 'psd', psd, 'preset', 'fast');
  assert(max(abs(from_psd(:) - white(:))) < 1e-6);
  % Integer classes are used with their values.
  z8 = uint8(255 * min(max(noisy, 0), 1));
  assert(isequal(shapewiener_denoise(z8, 'sigma', 12, 'preset', 'fast'), ...
                 shapewiener_denoise(double(z8), 'sigma', 12, 'preset', 'fast')));
end
