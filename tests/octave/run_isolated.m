function status = run_isolated(lines)
  % Runs the code LINES (a cell of strings) in a fresh octave-cli process
  % with the current shapewiener and the test helpers on its path; returns
  % the exit status: 0 when the code ran without error, non-zero when it
  % raised an error or the process died (a crash).
  mex_dir = fileparts(which('shapewiener'));
  test_dir = fileparts(mfilename('fullpath'));
  script = [tempname() '.m'];
  fid = fopen(script, 'w');
  fprintf(fid, 'addpath(''%s''); addpath(''%s'');\n', mex_dir, test_dir);
  fprintf(fid, 'try\n');
  fprintf(fid, '%s\n', lines{:});
  fprintf(fid, 'catch err\n  fprintf(2, ''%%s\\n'', err.message);\n  exit(1);\nend\nexit(0);\n');
  fclose(fid);
  octave = fullfile(OCTAVE_HOME(), 'bin', 'octave-cli');
  if ~exist(octave, 'file')
    octave = 'octave-cli';
  end
  [status, output] = system(sprintf('"%s" --norc --no-history --no-window-system "%s" 2>&1', ...
                                    octave, script));
  delete(script);
  if status ~= 0
    printf('%s', output);
  end
end
