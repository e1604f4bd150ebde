function test_empty_image()
  % Images with no pixels give an empty output. Run in a separate Octave
  % process, so that a crash is reported as a failure of this test instead
  % of ending the whole suite.
  code = {
    'for s = [0 0; 0 5; 3 0]'''
    '  args = make_valid_args(s(1), s(2), 2, 32);'
    '  out = shapewiener(args{:});'
    '  assert(isa(out, ''double'') && isequal(size(out), s''), ...'
    '         ''%dx%d image: output %s'', s, mat2str(size(out)));'
    'end'
    '% An empty ScaleSet whose other dimension is not 0: nothing may be'
    '% read from it, so it is either rejected or gives an empty output.'
    'for scales = {zeros(1, 0), zeros(0, 1), zeros(0, 1000000)}'
    '  args = make_valid_args(0, 0, 2, 32);'
    '  args{1} = scales{1};'
    '  try'
    '    out = shapewiener(args{:});'
    '    assert(isempty(out), ''empty ScaleSet: non-empty output'');'
    '  catch err'
    '    assert(strncmp(err.identifier, ''shapewiener:ScaleSet:'', 21), ...'
    '           ''empty ScaleSet %s: %s'', mat2str(size(scales{1})), err.message);'
    '  end'
    'end'};
  status = run_isolated(code);
  assert(status == 0, 'the empty-image calls failed or crashed Octave (exit status %d)', status);
end
