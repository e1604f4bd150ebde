function status = run_all_tests()
  % Runs every test_*.m in this folder; returns 0 when all pass.
  here = fileparts(mfilename('fullpath'));
  files = dir(fullfile(here, 'test_*.m'));
  failed = 0;
  for i = 1:numel(files)
    name = files(i).name(1:end-2);
    try
      feval(name);
      printf('PASS %s\n', name);
    catch err
      failed = failed + 1;
      printf('FAIL %s: %s\n', name, err.message);
    end
  end
  printf('%d of %d Octave test files passed\n', numel(files) - failed, numel(files));
  status = failed > 0;
end
