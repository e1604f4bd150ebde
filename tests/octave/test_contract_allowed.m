function test_contract_allowed()
  % Calls inside the argument contract that look odd must be accepted.
  % Where the odd value cannot change the result, the output must equal the
  % plain call's bit for bit.
  reference = run(make_valid_args());
  m = 5; k = 6; mk = m * k;
  base = make_valid_args();
  list = base{10};
  masks = base{4};

  % {description, argument position, value, same result as the plain call}
  % (a function handle instead of the position edits the whole list).
  cases = {
    % A count never exceeds 65535, so these never skip an entry.
    'CoverageThreshold NaN', 16, NaN, true
    'CoverageThreshold Inf', 16, Inf, true
    'CoverageThreshold 65535', 16, 65535, true
    'CoverageThreshold 1e300', 16, 1e300, true
    'CoverageThreshold 0', 16, 0, false
    'CoverageThreshold -Inf', 16, -Inf, false
    'NoiseLevelFactor 0', 11, 0, false
    'NoiseLevelFactor negative', 11, -2, false
    'NoiseLevelFactor NaN', 11, NaN, false
    'NoiseLevelFactor Inf', 11, Inf, false
    'WienerVarianceFactor 0', 15, 0, false
    'WienerVarianceFactor negative', 15, -1, false
    'WienerVarianceFactor NaN', 15, NaN, false
    % Scalars are read from their first element.
    'H as a vector', 13, [2 7 NaN], true
    'N as a column', 7, [32; 5], true
    'NoiseLevelFactor as a matrix', 11, [1 2; 3 4], true
    'CoverageThreshold as a vector', 16, [1e9 0], true
    'N rounding up to 32', 7, 31.5, true
    % Scales round with halves up; unselected elements may be anything.
    'ScaleSet 2.4', 1, 2.4, true
    'ScaleSet 1.5', 1, 1.5, true
    'ScaleSet column', 1, [2; 2], true
    'ScaleSet with unselected odd scales', 1, [2, 99, -1, NaN, Inf, 0], true
    % More transform matrices than needed; the extra cells are not read.
    'TransformBank surplus cells', 3, [base{3}; {'abc'; ones(7); {}}], true
    'TransformBank as a row', 3, base{3}', true
    % Only the linear cell order of the mask bank counts, and only whether
    % a mask byte is non-zero.
    'SectorMaskBank as a row', 4, reshape(masks, 1, []), true
    'SectorMaskBank as a column', 4, masks(:), true
    'mask bytes 7 and 255', 4, cellfun(@(x) x .* uint8(7 + 248 * mod(reshape(1:numel(x), size(x)), 2)), ...
                                       masks, 'UniformOutput', false), true
    % Only the equality of consecutive keys counts.
    'negative keys', 10, [list(:, 1), -list(:, 2)], true
    'large keys', 10, [list(:, 1), list(:, 2) + (intmax('int32') - 100)], true
    % Rows N/2+2 .. N of the noise spectrum are never read.
    'NoisePsd NaN in unread rows', 8, [0.01 * ones(17, 32); NaN(15, 32)], true
    % Key 0 on the first entry still makes the first shape's noise levels.
    'ShapeKey 0 first', 10, [list(:, 1), [0; list(2:end, 2)]], true
    % The same pixel more than once.
    'repeated pixels', 10, int32([ones(mk, 1), (1:mk)']), false
    % NaN and Inf pixels.
    'NaN noisy pixel', 9, @(a) set_pixel(a, 9, 12, NaN), false
    'NaN pilot pixel', 14, @(a) set_pixel(a, 14, 12, NaN), false
    'Inf noisy pixel', 9, @(a) set_pixel(a, 9, 1, Inf), false
  };

  for i = 1:size(cases, 1)
    [label, pos, value, same] = cases{i, :};
    args = make_valid_args();
    if is_function_handle(value)
      args = value(args);
    else
      args{pos} = value;
    end
    try
      out = shapewiener(args{:});
    catch err
      error('%s: rejected with %s: %s', label, err.identifier, err.message);
    end
    assert(isa(out, 'double') && isreal(out) && isequal(size(out), [m, k]), ...
           '%s: output of class %s and size %s', label, class(out), mat2str(size(out)));
    if same
      assert(same_bits(out, reference), '%s: the result differs from the plain call', label);
    end
  end

  % A NaN pixel reaches only the shapes that contain it: with one key per
  % entry and 3 x 3 shapes, pixels at Chebyshev distance 3 or more from it
  % keep the plain result.
  m = 8; k = 9; mk = m * k;
  one_key_each = int32([(1:mk)', (1:mk)']);
  plain = make_valid_args(m, k, 2, 32);
  plain{10} = one_key_each;
  expected = run(plain);
  args = make_valid_args(m, k, 2, 32);
  args{10} = one_key_each;
  args{9}(3, 4) = NaN;
  out = shapewiener(args{:});
  [col, row] = meshgrid(1:k, 1:m);
  far = max(abs(row - 3), abs(col - 4)) >= 3;
  assert(same_bits(out(far), expected(far)), 'a NaN pixel changed pixels far from it');
  assert(isnan(out(3, 4)), 'the NaN pixel itself did not come out as NaN');
end

function out = run(args)
  out = shapewiener(args{:});
end

function args = set_pixel(args, pos, index, value)
  img = args{pos};
  img(index) = value;
  args{pos} = img;
end
