function test_output()
  % Properties of the result: identical calls give identical bits, a pixel
  % that no processed shape covers is NaN, and covered pixels hold a
  % weighted mean of estimates clipped to [0, 1].

  % Determinism, on the general path and on a variant, with N = 32 and a
  % table-driven DFT size.
  for dims = [5 6 2 32; 7 6 4 32; 6 7 3 12; 4 9 5 10]'
    first = make_valid_args(dims(1), dims(2), dims(3), dims(4));
    second = make_valid_args(dims(1), dims(2), dims(3), dims(4));
    out1 = shapewiener(first{:});
    out2 = shapewiener(second{:});
    assert(same_bits(out1, out2), 'two identical calls differ (M=%d K=%d H=%d N=%d)', dims);
  end

  % A noisy image with noise, a pilot that differs from it, one key per
  % entry: still deterministic, and every covered pixel lies in [0, 1] up
  % to the float32 rounding of the weight sums.
  m = 9; k = 8;
  [col, row] = meshgrid(1:k, 1:m);
  noisy = 0.5 + 0.3 * sin(row * 1.7 + col * 2.3) .* cos(col * 0.9);
  pilot = 0.5 + 0.2 * sin(row * 0.3 + col * 0.5);
  outputs = cell(1, 2);
  for i = 1:2
    args = make_valid_args(m, k, 3, 32);
    args{9} = noisy + 0;
    args{14} = pilot + 0;
    args{10} = int32([(1:m * k)', (1:m * k)']);
    outputs{i} = shapewiener(args{:});
  end
  assert(same_bits(outputs{1}, outputs{2}), 'two identical noisy calls differ');
  out = outputs{1};
  assert(all(out(:) >= -1e-6 & out(:) <= 1 + 1e-6), ...
         'output outside [0, 1]: %g .. %g', min(out(:)), max(out(:)));

  % Only some pixels listed (some of them twice): with 3 x 3 square shapes
  % a pixel is covered when a listed pixel lies within Chebyshev distance
  % 1, and every other pixel is NaN.
  m = 7; k = 8; mk = m * k;
  listed = [1; 1; 20; 20; 20; 45; 12];
  pixels = listed(1 + mod(0:mk - 1, numel(listed)));
  args = make_valid_args(m, k, 2, 32);
  args{10} = int32([pixels(:), (1:mk)']);
  out = shapewiener(args{:});
  [col, row] = meshgrid(1:k, 1:m);
  covered = false(m, k);
  for p = listed'
    [r, c] = ind2sub([m, k], p);
    covered = covered | (abs(row - r) <= 1 & abs(col - c) <= 1);
  end
  assert(isequal(isnan(out), ~covered), 'NaN pattern differs from the uncovered pixels');
  assert(all(isfinite(out(covered))), 'a covered pixel is not finite');

  % H = 1: every shape is its own pixel; a pixel never listed is NaN.
  args = make_valid_args(3, 4, 1, 32);
  args{10} = int32([[1; 1; 1; 5; 5; 5; 9; 9; 9; 12; 12; 12], (1:12)']);
  out = shapewiener(args{:});
  assert(isequal(find(~isnan(out))', [1 5 9 12]), 'H = 1: wrong covered pixels');
end
