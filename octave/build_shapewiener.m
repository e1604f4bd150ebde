function mexfile = build_shapewiener(outdir)
% BUILD_SHAPEWIENER  Compile the shapewiener MEX file in Octave or MATLAB.
%
%   build_shapewiener           builds into the folder of this script
%   build_shapewiener(OUTDIR)   builds into OUTDIR (created if needed)
%   MEXFILE = build_shapewiener(...) returns the path of the built file.
%
%   Compiles the library of this source tree (src/) with each gateway into
%   a MEX file: shapewiener (the filter module) and shapewiener_denoise
%   (the denoiser), and puts their help files beside them; add OUTDIR to
%   the path to use the functions. MEXFILE is the filter module's file.
%
%   In Octave the host's compiler driver (mkoctfile --mex) is used; in
%   MATLAB the mex command, with the R2017b matrix API. Both compile as
%   C++17 without floating-point contraction and without fast-math, so the
%   results do not depend on the host. On Linux under MATLAB, libstdc++
%   and libgcc are linked statically, since MATLAB ships its own (older)
%   libstdc++.

  here = fileparts(mfilename('fullpath'));
  root = fileparts(here);
  srcdir = fullfile(root, 'src');
  if nargin < 1 || isempty(outdir)
    outdir = here;
  end
  if ~exist(fullfile(srcdir, 'mex', 'gateway.cpp'), 'file')
    error('build_shapewiener:noSources', ...
          'build_shapewiener: the filter sources were not found under %s.', srcdir);
  end
  if ~exist(outdir, 'dir')
    [ok, msg] = mkdir(outdir);
    if ~ok
      error('build_shapewiener:outdir', ...
            'build_shapewiener: cannot create %s: %s', outdir, msg);
    end
  end

  % The library's sources (the list in src/sources.txt) and the gateways:
  % shapewiener (the filter module) and shapewiener_denoise.
  lines = strsplit(fileread(fullfile(srcdir, 'sources.txt')), {'\r', '\n'});
  library = {};
  for i = 1:numel(lines)
    line = strtrim(lines{i});
    if ~isempty(line) && line(1) ~= '#'
      library{end + 1} = fullfile(root, line);
    end
  end
  names = {'shapewiener', 'shapewiener_denoise'};
  gateways = {fullfile(srcdir, 'mex', 'gateway.cpp'), fullfile(srcdir, 'mex', 'denoise_gateway.cpp')};
  % The filter's own headers are included as "mex/...", "driver/..." from
  % src/ and as "shapewiener/..." from include/; the host's own mex.h is
  % used (the standalone one of the tests, tests/support/mx, is not on the
  % include path).
  include = {['-I' srcdir], ['-I' fullfile(root, 'include')]};
  built = cell(size(names));
  for g = 1:numel(names)
    built{g} = compile_gateway(names{g}, [gateways(g), library], include, root, outdir);
  end
  mexfile = built{1};

  % The help texts sit beside the compiled files, and with the denoiser
  % the noise estimate's function, which calls it.
  files = names;
  if numel(names) > 1
    files{end + 1} = 'shapewiener_estimate_noise';
  end
  for g = 1:numel(files)
    help_file = fullfile(here, [files{g} '.m']);
    if ~strcmp(absolute_folder(outdir), absolute_folder(here))
      [ok, msg] = copyfile(help_file, outdir);
      if ~ok
        error('build_shapewiener:copy', ...
              'build_shapewiener: cannot copy the help file: %s', msg);
      end
    end
  end
  if nargout == 0
    fprintf('Built %s\n', strjoin(built, ', '));
    clear mexfile;
  end
end

function mexfile = compile_gateway(name, sources, include, root, outdir)
  % Compiles one gateway with the library into OUTDIR/NAME.<mex extension>.
  if exist('OCTAVE_VERSION', 'builtin')
    mexfile = fullfile(outdir, [name '.mex']);
    args = [{'--mex'}, include, sources];
    map = fullfile(root, 'cmake', 'mex_exports.map');
    if isunix() && ~ismac() && exist(map, 'file')
      % Export nothing but the gateway.
      args{end + 1} = ['-Wl,--version-script=' map];
    end
    args = [args, {'-o', mexfile}];
    old_flags = getenv('CXXFLAGS');
    setenv('CXXFLAGS', '-O2 -std=c++17 -ffp-contract=off -fno-fast-math -Wno-psabi -Wall');
    try
      [output, status] = mkoctfile(args{:});
    catch err
      setenv('CXXFLAGS', old_flags);
      rethrow(err);
    end
    setenv('CXXFLAGS', old_flags);
    if status ~= 0
      error('build_shapewiener:compile', ...
            'build_shapewiener: mkoctfile failed:\n%s', output);
    end
  else
    args = [{'-R2017b'}, include];
    if ispc()
      % MSVC reads COMPFLAGS, MinGW CXXFLAGS; each ignores the other.
      args = [args, {'COMPFLAGS=$COMPFLAGS /std:c++17 /fp:precise', ...
                     'CXXFLAGS=$CXXFLAGS -std=c++17 -ffp-contract=off -fno-fast-math'}];
    else
      args = [args, {'CXXFLAGS=$CXXFLAGS -std=c++17 -ffp-contract=off -fno-fast-math'}];
    end
    if isunix() && ~ismac()
      args{end + 1} = 'LDFLAGS=$LDFLAGS -static-libstdc++ -static-libgcc';
    end
    % libut answers whether the user pressed Ctrl-C.
    args = [args, sources, {'-lut', '-outdir', outdir, '-output', name}];
    mex(args{:});
    mexfile = fullfile(outdir, [name '.' mexext()]);
  end

end

function folder = absolute_folder(folder)
  % The absolute form of an existing folder, as the host resolves it.
  previous = pwd();
  cd(folder);
  folder = pwd();
  cd(previous);
end
