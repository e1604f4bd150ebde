function test_dither()
  % The tie-breaking dither is written into NoisyImage and PilotImage in
  % place: the pixel with 0-based linear index q gets mod(M*K-1-q, 256)
  % times 3e-17 (noisy) and that plus 13 times 3e-17 (pilot), in double.
  % Octave shows the write in every variable sharing the data, and even in
  % a numeric literal of function code that was passed directly.
  step = @(m, k) reshape(mod(m * k - 1 - (0:m * k - 1), 256), m, k);

  % Zero images and variables sharing them; a second call dithers again.
  args = make_valid_args(2, 2, 2, 32);
  args{9} = zeros(2);
  args{14} = zeros(2);
  noisy_alias = args{9};
  pilot_alias = args{14};
  untouched = zeros(2);
  shapewiener(args{:});
  noisy = step(2, 2) * 3e-17;
  pilot = (step(2, 2) + 13) * 3e-17;
  assert(same_bits(args{9}, noisy) && same_bits(args{14}, pilot), 'unexpected dither of a 2x2 image');
  assert(same_bits(noisy_alias, noisy) && same_bits(pilot_alias, pilot), ...
         'a variable sharing an image does not show the dither');
  assert(same_bits(untouched, zeros(2)), 'an unrelated array was changed');
  shapewiener(args{:});
  assert(same_bits(noisy_alias, noisy + noisy) && same_bits(pilot_alias, pilot + pilot), ...
         'the second call did not add the dither again');

  % The amount repeats every 256 pixels, counted from the last pixel, and is
  % added to ordinary values in double.
  args = make_valid_args(3, 100, 2, 32);
  before = args{14} + 0;
  args{9} = zeros(3, 100);
  shapewiener(args{:});
  assert(same_bits(args{9}, step(3, 100) * 3e-17), 'wrong dither amounts on a 3x100 image');
  assert(same_bits(args{14}, before + (step(3, 100) + 13) * 3e-17), 'PilotImage is not image + dither');

  % When NoisyImage and PilotImage share their data, both amounts go into it.
  args = make_valid_args(2, 2, 2, 32);
  args{9} = zeros(2);
  args{14} = args{9};
  shapewiener(args{:});
  assert(same_bits(args{9}, noisy + pilot), 'shared NoisyImage/PilotImage did not receive both dithers');

  % A literal of function code passed as NoisyImage is changed for the next
  % run of that code too (the reason to pass copies, x + 0).
  args = make_valid_args(2, 2, 2, 32);
  args{9} = literal_image();
  shapewiener(args{:});
  assert(same_bits(literal_image(), noisy), 'the literal does not show the dither');
  args{9} = literal_image() + 0;
  shapewiener(args{:});
  assert(same_bits(literal_image(), noisy), 'a copy of the literal wrote into the literal');
end

function img = literal_image()
  img = [0 0; 0 0];
end
