function check_installed_package(tarball, workdir)
  % Installs the package TARBALL under WORKDIR (its own prefix and package
  % lists, so no package of the user is touched), loads it, calls the
  % filter and the denoiser once and checks their help texts.
  % Errors on any failure.
  prefix = fullfile(workdir, 'prefix');
  pkg('prefix', prefix, fullfile(workdir, 'arch'));
  pkg('local_list', fullfile(workdir, 'local_packages'));
  pkg('global_list', fullfile(workdir, 'global_packages'));

  pkg('install', '-local', tarball);
  installed = pkg('list');
  names = cellfun(@(p) p.name, installed, 'UniformOutput', false);
  if ~isequal(names, {'shapewiener'})
    error('expected exactly the package shapewiener to be installed; got: %s', ...
          strjoin(names, ', '));
  end

  pkg('load', 'shapewiener');
  where = which('shapewiener');
  if ~strncmp(where, workdir, numel(workdir)) || isempty(regexp(where, '\.mex$', 'once'))
    error('shapewiener resolves to %s, not to the installed MEX file', where);
  end

  args = make_valid_args(5, 6, 2, 32);
  out = shapewiener(args{:});
  if ~isa(out, 'double') || ~isequal(size(out), [5, 6]) || ~isreal(out)
    error('the installed filter returned a %s of size %s', class(out), mat2str(size(out)));
  end
  if any(isnan(out(:)))
    error('every pixel is listed, yet the output holds NaN');
  end

  text = evalc('help shapewiener');
  expected = {'Shape-adaptive Wiener filter', 'OUT = shapewiener(ScaleSet', ...
              'CoverageThreshold', 'shapewiener:<argument>:<reason>', 'Example'};
  for i = 1:numel(expected)
    if isempty(strfind(text, expected{i}))
      error('help shapewiener lacks "%s"; it printed:\n%s', expected{i}, text);
    end
  end

  where = which('shapewiener_denoise');
  if ~strncmp(where, workdir, numel(workdir)) || isempty(regexp(where, '\.mex$', 'once'))
    error('shapewiener_denoise resolves to "%s", not to the installed MEX file', where);
  end
  out = shapewiener_denoise(0.5 + 0.1 * randn(12, 10), 'sigma', 0.1, 'preset', 'fast');
  if ~isequal(size(out), [12, 10]) || any(~isfinite(out(:)))
    error('the installed denoiser returned an unexpected result');
  end
  if isempty(strfind(evalc('help shapewiener_denoise'), 'Example'))
    error('help shapewiener_denoise lacks its example');
  end
  noise = shapewiener_estimate_noise(0.5 + 0.1 * randn(32, 24));
  if ~isequal(size(noise.psd), [32, 24]) || ~(noise.sigma > 0)
    error('the installed noise estimate returned an unexpected result');
  end

  pkg('unload', 'shapewiener');
  if ~isempty(which('shapewiener'))
    error('shapewiener is still on the path after pkg unload');
  end
  printf('package installed, loaded and called: %s\n', where);
end
