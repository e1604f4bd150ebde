function test_validation()
  % Calls outside the argument contract are rejected with the identifier
  % shapewiener:<argument>:<reason> before anything is written: NoisyImage
  % and PilotImage (and every variable sharing them) keep their values, and
  % the next valid call gives the usual result.
  %
  % The base call: 5 x 6 image, H = 2 (box side W = 3), N = 32, one scale.
  base = make_valid_args();
  reference = shapewiener(base{:});
  img = make_valid_args(){9};
  list = base{10};
  bank = base{3};
  masks = base{4};
  psd = base{8};

  % {description, argument position, replacement value, expected identifier}
  % or, for the cases that need more than one change, a function handle
  % that edits the whole argument list in place of position and value.
  cases = {
    % NoisyImage (fixes M and K)
    'NoisyImage single', 9, single(img), 'NoisyImage:notDouble'
    'NoisyImage int32', 9, int32(img), 'NoisyImage:notDouble'
    'NoisyImage logical', 9, img > 0.5, 'NoisyImage:notDouble'
    'NoisyImage char', 9, repmat('a', 5, 6), 'NoisyImage:notDouble'
    'NoisyImage cell', 9, {img}, 'NoisyImage:notDouble'
    'NoisyImage complex', 9, complex(img, 0), 'NoisyImage:complex'
    'NoisyImage sparse', 9, sparse(img), 'NoisyImage:sparse'
    'NoisyImage 3-D', 9, cat(3, img, img), 'NoisyImage:size'
    % PilotImage
    'PilotImage single', 14, single(img), 'PilotImage:notDouble'
    'PilotImage complex', 14, complex(img, 0), 'PilotImage:complex'
    'PilotImage sparse', 14, sparse(img), 'PilotImage:sparse'
    'PilotImage one column short', 14, img(:, 1:end-1), 'PilotImage:size'
    'PilotImage transposed', 14, img', 'PilotImage:size'
    'PilotImage 3-D', 14, cat(3, img, img), 'PilotImage:size'
    'PilotImage empty', 14, [], 'PilotImage:size'
    % MaxScale (H)
    'H int32', 13, int32(2), 'MaxScale:notDouble'
    'H single', 13, single(2), 'MaxScale:notDouble'
    'H complex', 13, complex(2, 0), 'MaxScale:complex'
    'H sparse', 13, sparse(2), 'MaxScale:sparse'
    'H empty', 13, [], 'MaxScale:empty'
    'H 1x0', 13, zeros(1, 0), 'MaxScale:empty'
    'H NaN', 13, NaN, 'MaxScale:notFinite'
    'H Inf', 13, Inf, 'MaxScale:notFinite'
    'H -Inf', 13, -Inf, 'MaxScale:notFinite'
    'H rounds to 0', 13, 0.49, 'MaxScale:outOfRange'
    'H negative', 13, -3, 'MaxScale:outOfRange'
    % N
    'N single', 7, single(32), 'DftSize:notDouble'
    'N complex', 7, complex(32, 0), 'DftSize:complex'
    'N sparse', 7, sparse(32), 'DftSize:sparse'
    'N empty', 7, [], 'DftSize:empty'
    'N NaN', 7, NaN, 'DftSize:notFinite'
    'N Inf', 7, Inf, 'DftSize:notFinite'
    'N below the box side', 7, 2, 'DftSize:tooSmall'
    'N negative', 7, -32, 'DftSize:tooSmall'
    'N odd', 7, 33, 'DftSize:odd'
    'N odd after rounding', 7, 32.5, 'DftSize:odd'
    'N odd, equal to the box side', 7, 3, 'DftSize:odd'
    % ScaleSet
    'ScaleSet int32', 1, int32(2), 'ScaleSet:notDouble'
    'ScaleSet complex', 1, complex(2, 0), 'ScaleSet:complex'
    'ScaleSet sparse', 1, sparse(2), 'ScaleSet:sparse'
    'ScaleSet matrix', 1, [2 2; 2 2], 'ScaleSet:notVector'
    'ScaleSet 3-D', 1, 2 * ones(1, 1, 2), 'ScaleSet:notVector'
    % Working memory beyond 4 GiB, reached before NoisePsd is looked at
    'N of 40000', 7, 40000, 'sizes:tooLarge'
    % NoisePsd
    'NoisePsd single', 8, single(psd), 'NoisePsd:notDouble'
    'NoisePsd complex', 8, complex(psd, 0), 'NoisePsd:complex'
    'NoisePsd sparse', 8, sparse(psd), 'NoisePsd:sparse'
    'NoisePsd one column short', 8, psd(:, 1:end-1), 'NoisePsd:size'
    'NoisePsd half size', 8, psd(1:16, 1:16), 'NoisePsd:size'
    'NoisePsd 3-D', 8, cat(3, psd, psd), 'NoisePsd:size'
    'NoisePsd empty', 8, [], 'NoisePsd:size'
    % TransformBank (needs W = 3 cells)
    'TransformBank numeric', 3, eye(3), 'TransformBank:notCell'
    'TransformBank struct', 3, struct('a', bank), 'TransformBank:notCell'
    'TransformBank too few cells', 3, bank(1:2), 'TransformBank:tooFewCells'
    'TransformBank no cells', 3, {}, 'TransformBank:tooFewCells'
    'TransformBank cell 2 of size 3', 3, {bank{1}, eye(3), bank{3}}, 'TransformBank:size'
    'TransformBank cell 3 not square', 3, {bank{1}, bank{2}, ones(3, 4)}, 'TransformBank:size'
    'TransformBank cell 3 unset', 3, {bank{1}, bank{2}, []}, 'TransformBank:size'
    'TransformBank cell 1 single', 3, {single(1), bank{2}, bank{3}}, 'TransformBank:notDouble'
    'TransformBank cell 2 a cell', 3, {bank{1}, {bank{2}}, bank{3}}, 'TransformBank:notDouble'
    'TransformBank cell 2 complex', 3, {bank{1}, complex(bank{2}, 0), bank{3}}, 'TransformBank:complex'
    'TransformBank cell 3 sparse', 3, {bank{1}, bank{2}, sparse(bank{3})}, 'TransformBank:sparse'
    % SectorMaskBank (needs H*H*8 = 32 cells of 3 x 3 uint8)
    'SectorMaskBank numeric', 4, uint8(ones(3)), 'SectorMaskBank:notCell'
    'SectorMaskBank 7 planes', 4, masks(:, :, 1:7), 'SectorMaskBank:cellCount'
    'SectorMaskBank one cell more', 4, [masks(:); {uint8(ones(3))}], 'SectorMaskBank:cellCount'
    'SectorMaskBank double mask', 4, @(a) set_cell(a, 4, 1, double(masks{1})), 'SectorMaskBank:notUint8'
    'SectorMaskBank logical mask', 4, @(a) set_cell(a, 4, 32, logical(masks{32})), 'SectorMaskBank:notUint8'
    'SectorMaskBank int8 mask', 4, @(a) set_cell(a, 4, 10, int8(masks{10})), 'SectorMaskBank:notUint8'
    'SectorMaskBank unset mask', 4, @(a) set_cell(a, 4, 7, []), 'SectorMaskBank:notUint8'
    'SectorMaskBank 4x4 mask', 4, @(a) set_cell(a, 4, 20, zeros(4, 'uint8')), 'SectorMaskBank:size'
    'SectorMaskBank 9-element vector mask', 4, @(a) set_cell(a, 4, 5, zeros(1, 9, 'uint8')), 'SectorMaskBank:size'
    % ProcessingList (30 x 2 int32)
    'ProcessingList double', 10, double(list), 'ProcessingList:notInt32'
    'ProcessingList uint32', 10, uint32(list), 'ProcessingList:notInt32'
    'ProcessingList int64', 10, int64(list), 'ProcessingList:notInt32'
    'ProcessingList one column', 10, list(:, 1), 'ProcessingList:size'
    'ProcessingList three columns', 10, [list, list(:, 2)], 'ProcessingList:size'
    'ProcessingList one entry short', 10, list(1:end-1, :), 'ProcessingList:size'
    'ProcessingList transposed', 10, list', 'ProcessingList:size'
    'ProcessingList pixel 0', 10, set_entry(list, 7, 1, 0), 'ProcessingList:pixelOutOfRange'
    'ProcessingList pixel M*K+1', 10, set_entry(list, 30, 1, 31), 'ProcessingList:pixelOutOfRange'
    'ProcessingList negative pixel', 10, set_entry(list, 1, 1, -1), 'ProcessingList:pixelOutOfRange'
    'ProcessingList pixel intmax', 10, set_entry(list, 12, 1, intmax('int32')), 'ProcessingList:pixelOutOfRange'
    % DirectionScaleMap (5 x 6 x 8 uint8, values 1..L selecting scales in 1..H)
    'DirectionScaleMap double', 2, ones(5, 6, 8), 'DirectionScaleMap:notUint8'
    'DirectionScaleMap int8', 2, ones(5, 6, 8, 'int8'), 'DirectionScaleMap:notUint8'
    'DirectionScaleMap 7 planes', 2, ones(5, 6, 7, 'uint8'), 'DirectionScaleMap:size'
    'DirectionScaleMap 2-D', 2, ones(5, 6, 'uint8'), 'DirectionScaleMap:size'
    'DirectionScaleMap transposed planes', 2, ones(6, 5, 8, 'uint8'), 'DirectionScaleMap:size'
    'DirectionScaleMap 4-D', 2, ones(5, 6, 8, 2, 'uint8'), 'DirectionScaleMap:size'
    'DirectionScaleMap byte 0', 2, set_entry(ones(5, 6, 8, 'uint8'), 3, 4, 0, 6), 'DirectionScaleMap:indexOutOfRange'
    'DirectionScaleMap byte L+1', 2, set_entry(ones(5, 6, 8, 'uint8'), 5, 6, 2, 8), 'DirectionScaleMap:indexOutOfRange'
    'DirectionScaleMap byte 255', 2, set_entry(ones(5, 6, 8, 'uint8'), 1, 1, 255, 1), 'DirectionScaleMap:indexOutOfRange'
    'selected scale above H', 1, @(a) select_second_scale(a, 3), 'DirectionScaleMap:scaleOutOfRange'
    'selected scale rounding above H', 1, @(a) select_second_scale(a, 2.5), 'DirectionScaleMap:scaleOutOfRange'
    'selected scale rounding to 0', 1, @(a) select_second_scale(a, 0.4), 'DirectionScaleMap:scaleOutOfRange'
    'selected scale negative', 1, @(a) select_second_scale(a, -1), 'DirectionScaleMap:scaleOutOfRange'
    'selected scale NaN', 1, @(a) select_second_scale(a, NaN), 'DirectionScaleMap:scaleOutOfRange'
    'selected scale Inf', 1, @(a) select_second_scale(a, Inf), 'DirectionScaleMap:scaleOutOfRange'
  };
  % The three factor/threshold scalars share their rules.
  scalars = {11, 'NoiseLevelFactor'; 15, 'WienerVarianceFactor'; 16, 'CoverageThreshold'};
  for i = 1:size(scalars, 1)
    [pos, name] = scalars{i, :};
    cases = [cases; {
      [name ' single'], pos, single(1), [name ':notDouble']
      [name ' logical'], pos, true, [name ':notDouble']
      [name ' int32'], pos, int32(1), [name ':notDouble']
      [name ' complex'], pos, complex(1, 0), [name ':complex']
      [name ' sparse'], pos, sparse(1), [name ':sparse']
      [name ' empty'], pos, [], [name ':empty']
      [name ' cell'], pos, {1}, [name ':notDouble']}];
  end

  for i = 1:size(cases, 1)
    [label, pos, value, id] = cases{i, :};
    args = make_valid_args();
    if is_function_handle(value)
      args = value(args);
    else
      args{pos} = value;
    end
    expect_rejected(args, 1, ['shapewiener:' id], label);
    expect_session_goes_on(reference, label);
  end

  % The number of inputs and outputs.
  args = make_valid_args();
  expect_rejected(args(1:15), 1, 'shapewiener:nrhs:tooFew', '15 inputs');
  expect_rejected({}, 1, 'shapewiener:nrhs:tooFew', 'no inputs');
  expect_rejected(args, 2, 'shapewiener:nlhs:tooMany', 'two outputs');
  expect_rejected(args, 3, 'shapewiener:nlhs:tooMany', 'three outputs');
  expect_session_goes_on(reference, 'the argument counts');
end

function expect_rejected(args, nout, id, label)
  % Calls with NOUT outputs, expects the error ID, and checks that the
  % images and variables sharing them are unchanged.
  [noisy_before, pilot_before, noisy_alias, pilot_alias] = snapshot(args);
  try
    outputs = cell(1, nout);
    [outputs{:}] = shapewiener(args{:});
  catch err
    assert(strcmp(err.identifier, id), '%s: raised %s ("%s"), expected %s', ...
           label, err.identifier, err.message, id);
    assert(strncmp(err.message, 'shapewiener: ', 13), '%s: message "%s"', label, err.message);
    parts = strsplit(id, ':');
    if ~any(strcmp(parts{2}, {'nrhs', 'nlhs', 'sizes'}))
      assert(~isempty(strfind(err.message, parts{2})), ...
             '%s: the message does not name %s: "%s"', label, parts{2}, err.message);
    end
    unchanged(args, noisy_before, pilot_before, noisy_alias, pilot_alias, label);
    return;
  end
  error('%s: accepted, expected %s', label, id);
end

function [noisy_before, pilot_before, noisy_alias, pilot_alias] = snapshot(args)
  % Deep copies of the two images (where passed) and aliases sharing them.
  noisy_before = []; pilot_before = []; noisy_alias = []; pilot_alias = [];
  if numel(args) >= 9
    noisy_before = deep_copy(args{9});
    noisy_alias = args{9};
  end
  if numel(args) >= 14
    pilot_before = deep_copy(args{14});
    pilot_alias = args{14};
  end
end

function unchanged(args, noisy_before, pilot_before, noisy_alias, pilot_alias, label)
  if numel(args) >= 9
    assert(isequaln(args{9}, noisy_before) && isequaln(noisy_alias, noisy_before) && ...
           bits_equal(noisy_alias, noisy_before), '%s: NoisyImage was changed', label);
  end
  if numel(args) >= 14
    assert(isequaln(args{14}, pilot_before) && isequaln(pilot_alias, pilot_before) && ...
           bits_equal(pilot_alias, pilot_before), '%s: PilotImage was changed', label);
  end
end

function copy = deep_copy(x)
  % A copy with its own data: the real double case bit for bit.
  if isa(x, 'double') && isreal(x) && ~issparse(x)
    copy = reshape(typecast(typecast(x(:), 'uint64'), 'double'), size(x));
  else
    copy = x;
  end
end

function same = bits_equal(a, b)
  if isa(a, 'double') && isreal(a) && ~issparse(a)
    same = same_bits(a, b);
  else
    same = true;
  end
end

function expect_session_goes_on(reference, label)
  args = make_valid_args();
  out = shapewiener(args{:});
  assert(same_bits(out, reference), 'after "%s": a valid call gives another result', label);
end

function args = set_cell(args, pos, index, value)
  c = args{pos};
  c{index} = value;
  args{pos} = c;
end

function a = set_entry(a, varargin)
  % set_entry(A, I, J, VALUE) or set_entry(A, I, J, VALUE, PLANE).
  if numel(varargin) == 3
    a(varargin{1}, varargin{2}) = varargin{3};
  else
    a(varargin{1}, varargin{2}, varargin{4}) = varargin{3};
  end
end

function args = select_second_scale(args, scale)
  % ScaleSet [H, SCALE] with one DirectionScaleMap byte selecting SCALE.
  args{1} = [args{13}, scale];
  map = args{2};
  map(4, 2, 5) = 2;
  args{2} = map;
end
