function test_error_messages()
  % An error message names the function once, then the argument by its
  % position and name. (Octave itself puts "shapewiener: " in front of the
  % text that the MEX file raises.)
  args = make_valid_args();
  args{10} = double(args{10});
  try
    shapewiener(args{:});
  catch err
    assert(strcmp(err.identifier, 'shapewiener:ProcessingList:notInt32'), ...
           'identifier %s', err.identifier);
    assert(strncmp(err.message, 'shapewiener: ', 13) && ...
           ~strncmp(err.message, 'shapewiener: shapewiener:', 25), ...
           'the message does not start with one "shapewiener: ": "%s"', err.message);
    assert(~isempty(strfind(err.message, 'argument 10 (ProcessingList)')), ...
           'the message does not name argument 10 (ProcessingList): "%s"', err.message);
    return;
  end
  error('a double ProcessingList was accepted');
end
