function test_hostile()
  % shapewiener_denoise against hostile input: one row per bad call and the
  % identifier it must give; every row also checks that the call changed
  % neither its arguments nor an output variable that held a value. (The
  % library's own refusals of noise values: tests/test_denoise.cpp.)
  if exist('shapewiener_denoise') ~= 3
    if strcmp(getenv('CI'), 'true')
      error('shapewiener_denoise.mex was not built');
    end
    printf('SKIPPED test_hostile: shapewiener_denoise.mex was not built\n');
    return;
  end
  z = 60 + 120 * (repmat(1:20, 24, 1) > 10) + 12 * sin(1:24)' * ones(1, 20);
  nan_z = z;
  nan_z(3, 4) = NaN;
  cases = {
    % the image
    {z > 100, 'sigma', 1}, 'shapewiener:image:notReal'
    {z + 1i, 'sigma', 1}, 'shapewiener:image:notReal'
    {{z}, 'sigma', 1}, 'shapewiener:image:notReal'
    {sparse(z), 'sigma', 1}, 'shapewiener:image:notReal'
    {ones(3, 3, 2), 'sigma', 1}, 'shapewiener:image:channels'
    {ones(3, 3, 5), 'sigma', 1}, 'shapewiener:image:channels'
    {ones(3, 3, 3, 2), 'sigma', 1}, 'shapewiener:image:size'
    {nan_z, 'sigma', 12}, 'shapewiener:image:notFinite'
    {int64(z) + intmax('int64') / 2, 'sigma', 1}, 'shapewiener:image:inexact'
    % the noise
    {z(1:15, :)}, 'shapewiener:image:tooSmall'
    {z, 'sigma', 1, 'estimateOnly', true}, 'shapewiener:noise:conflict'
    {z, 'kernel', ones(3)}, 'shapewiener:noise:missing'
    {z, 'psd', ones(24, 20), 'sigma', 1}, 'shapewiener:noise:conflict'
    {z, 'psd', ones(20, 24)}, 'shapewiener:noise:psdSize'
    {z, 'sigma', 'abc'}, 'shapewiener:sigma:notScalar'
    {z, 'sigma', [1 2]}, 'shapewiener:sigma:notScalar'
    {z, 'sigma', true}, 'shapewiener:sigma:notScalar'
    {z, 'kernel', ones(3) + 1i, 'sigma', 1}, 'shapewiener:kernel:notReal'
    {z, 'channel_covariance', eye(3)}, 'shapewiener:noise:covariance'
    {cat(3, z, z, z), 'channel_covariance', eye(2)}, 'shapewiener:noise:covariance'
    {cat(3, z, z, z), 'channel_covariance', eye(3), 'sigma', 1}, 'shapewiener:noise:conflict'
    {cat(3, z, z, z), 'psd', ones(24, 20, 2)}, 'shapewiener:psd:channels'
    % options
    {z, 'sigma'}, 'shapewiener:options:pairs'
    {z, 'sigma', 1, 'colour', 1}, 'shapewiener:options:unknown'
    {z, 'sigma', 1, 'preset', 'slow'}, 'shapewiener:options:preset'
    {z, 'sigma', 1, 'preset', 3}, 'shapewiener:preset:notText'
    {z, 'sigma', 1, 'threads', -1}, 'shapewiener:threads:outOfRange'
    {z, 'sigma', 1, 'threads', 2.5}, 'shapewiener:threads:outOfRange'
  };
  for i = 1:rows(cases)
    args = cases{i, 1};
    kept = args;
    out = 7;
    try
      out = shapewiener_denoise(args{:});
      error('case %d: no error', i);
    catch err
      if ~strcmp(err.identifier, cases{i, 2})
        error('case %d: expected %s, got %s (%s)', i, cases{i, 2}, err.identifier, err.message);
      end
      assert(isempty(strfind(err.message, sprintf('\n'))), 'case %d: more than one line', i);
    end
    assert(isequaln(args, kept), 'case %d changed its arguments', i);
    assert(isequal(out, 7), 'case %d changed the output variable', i);
  end
end
