function test_denoise_gateway()
  % shapewiener_denoise: one call on a small image in every noise form,
  % classes given as values, and the errors.
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

  cases = {
    {noisy}, 'shapewiener:noise:missing'
    {noisy, 'sigma'}, 'shapewiener:options:pairs'
    {noisy, 'psd', psd, 'sigma', 1}, 'shapewiener:noise:conflict'
    {noisy, 'sigma', 0.1, 'colour', 1}, 'shapewiener:options:unknown'
    {noisy, 'sigma', 0.1, 'preset', 'slow'}, 'shapewiener:options:preset'
    {noisy, 'sigma', [1 2]}, 'shapewiener:sigma:notScalar'
    {noisy, 'sigma', 0.1, 'threads', -1}, 'shapewiener:threads:outOfRange'
    {noisy + 1i, 'sigma', 0.1}, 'shapewiener:image:notReal'
    {{noisy}, 'sigma', 0.1}, 'shapewiener:image:notReal'
    {ones(3, 3, 2), 'sigma', 0.1}, 'shapewiener:image:size'
  };
  for i = 1:rows(cases)
    try
      shapewiener_denoise(cases{i, 1}{:});
      error('case %d: no error', i);
    catch err
      if ~strcmp(err.identifier, cases{i, 2})
        error('case %d: expected %s, got %s (%s)', i, cases{i, 2}, err.identifier, err.message);
      end
    end
  end
end
