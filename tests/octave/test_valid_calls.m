function test_valid_calls()
  % Valid calls from Octave: the output's class and size over the general
  % path and the size-specialised variants, nlhs = 0, ignored and surplus
  % arguments, and the rounding of the maximum scale in the dispatch.

  % (M, K, H, N): general path (H = 1, 2, 3, 12), variants (H = 4, 11),
  % DFT sizes other than 32, images smaller than the box.
  sizes = [5 6 1 32; 5 6 2 32; 4 7 3 8; 6 5 4 32; 3 2 4 8; 1 9 2 4; ...
           9 1 3 32; 6 5 11 22; 6 5 12 24; 1 1 2 32];
  for i = 1:size(sizes, 1)
    m = sizes(i, 1); k = sizes(i, 2); h = sizes(i, 3); n = sizes(i, 4);
    args = make_valid_args(m, k, h, n);
    out = shapewiener(args{:});
    label = sprintf('M=%d K=%d H=%d N=%d', m, k, h, n);
    assert(isa(out, 'double') && isreal(out) && ~issparse(out), ...
           '%s: the output is not a real full double matrix', label);
    assert(isequal(size(out), [m, k]), '%s: output of size %s', label, mat2str(size(out)));
    % Every pixel is listed, so every pixel is covered.
    assert(all(isfinite(out(:))), '%s: non-finite output for a covered pixel', label);
  end

  reference = run_fresh(make_valid_args());

  % With no output requested the result still goes to ans.
  args = make_valid_args();
  shapewiener(args{:});
  assert(same_bits(ans, reference), 'nlhs = 0: ans differs from the one-output call');

  % Arguments 5, 6 and 12 are ignored whatever they hold.
  ignored = {{'abc', {}, struct('a', 1)}, {@sin, int8([1 2 3]), single(NaN)}, ...
             {zeros(0, 3), true, 'x'}};
  for i = 1:numel(ignored)
    args = make_valid_args();
    args([5, 6, 12]) = ignored{i};
    assert(same_bits(shapewiener(args{:}), reference), ...
           'the ignored arguments changed the result (set %d)', i);
  end

  % Arguments after the sixteenth are ignored too.
  args = make_valid_args();
  assert(same_bits(shapewiener(args{:}, 'extra', {1}), reference), ...
         'surplus arguments changed the result');

  % The maximum scale is rounded with halves up before the dispatch:
  % 3.5 runs the H = 4 variant, 3.49 the general path with H = 3, 11.5 the
  % general path with H = 12.
  cases = {4, 3.5, 32; 3, 3.49, 32; 12, 11.5, 24; 2, 2.4999, 32};
  for i = 1:size(cases, 1)
    [h, given, n] = cases{i, :};
    args = make_valid_args(5, 6, h, n);
    args{13} = given;
    assert(same_bits(shapewiener(args{:}), run_fresh(make_valid_args(5, 6, h, n))), ...
           'H = %g is not handled as H = %d', given, h);
  end
end

function out = run_fresh(args)
  out = shapewiener(args{:});
end
