function test_dither()
  % The tie-breaking dither is written into NoisyImage and PilotImage in
  % place: the pixel with 0-based linear index q gets mod(M*K-1-q, 256)
  % times 3e-17 (noisy) and that plus 13 times 3e-17 (pilot), visible in
  % every variable sharing the data, and again on a second call.

  % 2 x 2 zero images.
  args = make_valid_args(2, 2, 2, 32);
  args{9} = zeros(2);
  args{14} = zeros(2);
  noisy_alias = args{9};
  pilot_alias = args{14};
  untouched = zeros(2);
  shapewiener(args{:});
  expected_noisy = reshape([3, 2, 1, 0] * 3e-17, 2, 2);
  expected_pilot = reshape([16, 15, 14, 13] * 3e-17, 2, 2);
  assert(args{9}(4) == 0, 'noisy pixel 3 (0-based) changed');
  assert(args{9}(3) == 3e-17, 'noisy pixel 2 (0-based) is %.17g', args{9}(3));
  assert(args{9}(1) == 3 * 3e-17, 'noisy pixel 0 (0-based) is %.17g', args{9}(1));
  assert(args{14}(4) == 13 * 3e-17 && args{14}(1) == 16 * 3e-17, ...
         'pilot pixels 3 and 0 (0-based) are %.17g and %.17g', args{14}(4), args{14}(1));
  assert(same_bits(args{9}, expected_noisy) && same_bits(args{14}, expected_pilot), ...
         'unexpected dither of a 2x2 image');
  assert(same_bits(noisy_alias, expected_noisy), ...
         'a variable sharing NoisyImage does not show the dither');
  assert(same_bits(pilot_alias, expected_pilot), ...
         'a variable sharing PilotImage does not show the dither');
  assert(same_bits(untouched, zeros(2)), 'an unrelated array was changed');

  % A second call dithers the same arrays again.
  shapewiener(args{:});
  assert(same_bits(noisy_alias, expected_noisy + expected_noisy), ...
         'the second call did not add the dither again to NoisyImage');
  assert(same_bits(pilot_alias, expected_pilot + expected_pilot), ...
         'the second call did not add the dither again to PilotImage');

  % The amount repeats every 256 pixels, counted from the last pixel.
  m = 3; k = 100;
  args = make_valid_args(m, k, 2, 32);
  args{9} = zeros(m, k);
  args{14} = zeros(m, k);
  shapewiener(args{:});
  step = mod(m * k - 1 - (0:m * k - 1), 256);
  assert(same_bits(args{9}, reshape(step * 3e-17, m, k)), ...
         'wrong dither amounts on a 3x100 image (noisy)');
  assert(same_bits(args{14}, reshape((step + 13) * 3e-17, m, k)), ...
         'wrong dither amounts on a 3x100 image (pilot)');

  % Ordinary values: the dither is added in double.
  args = make_valid_args(4, 5, 2, 32);
  before_noisy = args{9} + 0;
  before_pilot = args{14} + 0;
  shapewiener(args{:});
  step = reshape(mod(19 - (0:19), 256), 4, 5);
  assert(same_bits(args{9}, before_noisy + step * 3e-17), ...
         'NoisyImage holds other values than image + dither');
  assert(same_bits(args{14}, before_pilot + (step + 13) * 3e-17), ...
         'PilotImage holds other values than image + dither');

  % When NoisyImage and PilotImage share their data, both amounts go into
  % the one array.
  args = make_valid_args(2, 2, 2, 32);
  args{9} = zeros(2);
  args{14} = args{9};
  shapewiener(args{:});
  assert(same_bits(args{9}, expected_noisy + expected_pilot), ...
         'shared NoisyImage/PilotImage did not receive both dithers');
end
