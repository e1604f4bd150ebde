function test_host()
  % What only the real host can show: Octave's own classes are rejected
  % with the right identifier and a message that names the function once;
  % a rejected call leaves NoisyImage and PilotImage (and every variable
  % sharing their data) alone and the session goes on; nlhs 0 leaves the
  % result in ans; the ignored arguments may hold any Octave value; empty
  % images do not take Octave down. (The C++ table in tests/test_validation.cpp
  % checks every rule of the contract through the standalone host.)
  reference = run(make_valid_args());

  % {position, expected class} of every numeric argument.
  numeric = {1, 'double'; 2, 'uint8'; 7, 'double'; 8, 'double'; 9, 'double'; 10, 'int32';
             11, 'double'; 13, 'double'; 14, 'double'; 15, 'double'; 16, 'double'};
  values = {single(1), true, int8(1), uint16(1), 'x', struct('a', 1), @sin, {1}, complex(1, 1), sparse(1)};
  reasons = struct('double', 'notDouble', 'uint8', 'notUint8', 'int32', 'notInt32');
  names = {'ScaleSet', 'DirectionScaleMap', '', '', '', '', 'DftSize', 'NoisePsd', 'NoisyImage', ...
           'ProcessingList', 'NoiseLevelFactor', '', 'MaxScale', 'PilotImage', ...
           'WienerVarianceFactor', 'CoverageThreshold'};
  for i = 1:rows(numeric)
    [pos, cls] = numeric{i, :};
    for j = 1:numel(values)
      value = values{j};
      why = reasons.(cls);
      if strcmp(cls, 'double') && iscomplex(value), why = 'complex'; end
      if strcmp(cls, 'double') && issparse(value), why = 'sparse'; end
      args = make_valid_args();
      args{pos} = value;
      expect_rejected(args, 1, sprintf('shapewiener:%s:%s', names{pos}, why), reference);
    end
  end
  % The banks: not cells, or cells of Octave-only classes.
  args = make_valid_args();
  bank = args{3};
  masks = args{4};
  expect_rejected(set_arg(args, 3, struct('a', {bank})), 1, 'shapewiener:TransformBank:notCell', reference);
  expect_rejected(set_arg(args, 3, {bank{1}, single(bank{2}), bank{3}}), 1, 'shapewiener:TransformBank:notDouble', reference);
  expect_rejected(set_arg(args, 3, {bank{1}, bank{2}, sparse(bank{3})}), 1, 'shapewiener:TransformBank:sparse', reference);
  expect_rejected(set_arg(args, 4, @() masks), 1, 'shapewiener:SectorMaskBank:notCell', reference);
  masks{7} = logical(masks{7});
  expect_rejected(set_arg(args, 4, masks), 1, 'shapewiener:SectorMaskBank:notUint8', reference);
  % The argument counts.
  expect_rejected(args(1:15), 1, 'shapewiener:nrhs:tooFew', reference);
  expect_rejected(args, 2, 'shapewiener:nlhs:tooMany', reference);

  % With no output requested the result still goes to ans.
  shapewiener(args{:});
  assert(same_bits(ans, reference), 'nlhs = 0: ans differs from the one-output call');
  % Arguments 5, 6 and 12, and any after the sixteenth, are ignored whatever they hold.
  ignored = {{'abc', {}, struct('a', 1)}, {@sin, int8([1 2 3]), single(NaN)}, {sparse(1), true, 1i}};
  for i = 1:numel(ignored)
    args = make_valid_args();
    args([5, 6, 12]) = ignored{i};
    assert(same_bits(shapewiener(args{:}, @cos, {1}), reference), 'ignored arguments changed the result (set %d)', i);
  end

  % Images without pixels, in a separate process: a crash fails this test
  % instead of ending the suite.
  status = run_isolated({
    'for s = [0 0; 0 5; 3 0]'''
    '  args = make_valid_args(s(1), s(2), 2, 32);'
    '  out = shapewiener(args{:});'
    '  assert(isa(out, ''double'') && isequal(size(out), s''), ''%dx%d image: output %s'', s, mat2str(size(out)));'
    'end'});
  assert(status == 0, 'the empty-image calls failed or crashed Octave (exit status %d)', status);
end

function out = run(args)
  out = shapewiener(args{:});
end

function args = set_arg(args, pos, value)
  args{pos} = value;
end

function expect_rejected(args, nout, id, reference)
  % Expects the error ID with a message that names the function once and the
  % argument by position; checks that the images and the variables sharing
  % them kept their bits, and that the next valid call gives the usual result.
  kept = {};  % {position, alias, bit copy} of each real full double image
  for pos = [9 14]
    if numel(args) >= pos && isa(args{pos}, 'double') && isreal(args{pos}) && ~issparse(args{pos})
      kept(end + 1, :) = {pos, args{pos}, reshape(typecast(typecast(args{pos}(:), 'uint64'), 'double'), size(args{pos}))};
    end
  end
  try
    outputs = cell(1, nout);
    [outputs{:}] = shapewiener(args{:});
  catch err
    assert(strcmp(err.identifier, id), 'raised %s ("%s"), expected %s', err.identifier, err.message, id);
    assert(strncmp(err.message, 'shapewiener: ', 13) && ~strncmp(err.message, 'shapewiener: shapewiener:', 25), ...
           '%s: the message does not start with one "shapewiener: ": "%s"', id, err.message);
    parts = strsplit(id, ':');
    assert(any(strcmp(parts{2}, {'nrhs', 'nlhs'})) || ~isempty(strfind(err.message, [' (' parts{2} ')'])), ...
           '%s: the message does not name the argument: "%s"', id, err.message);
    for i = 1:rows(kept)
      assert(same_bits(kept{i, 2}, kept{i, 3}) && same_bits(args{kept{i, 1}}, kept{i, 3}), ...
             '%s: argument %d was changed', id, kept{i, 1});
    end
    fresh = make_valid_args();
    assert(same_bits(shapewiener(fresh{:}), reference), 'after %s: a valid call gives another result', id);
    return;
  end
  error('accepted, expected %s', id);
end
