function interrupt_session(step)
  % Steps of the Ctrl-C check that interrupt_test.sh drives in one
  % octave-cli session: 'long' starts a filter call that runs for many
  % seconds, 'long_denoise' a denoiser call that spends seconds before its
  % first pass (which the harness interrupts with SIGINT), 'after' checks that the
  % session goes on and that a call still gives the bits of a fresh one.
  persistent small expected
  switch step
    case 'long'
      % H = 11, every entry its own key: noise levels at every entry.
      args = make_valid_args(224, 224, 11, 32);
      args{10}(:, 2) = int32(1:224 * 224)';
      small = make_valid_args(6, 7, 3, 32);
      expected = shapewiener(small{:});
      small = make_valid_args(6, 7, 3, 32);
      printf('calling\n');
      fflush(stdout);
      shapewiener(args{:});
      printf('the long call was not interrupted\n');
    case 'long_denoise'
      % A kernel as large as the image: seconds in the noise description,
      % before any pass.
      small = make_valid_args(6, 7, 3, 32);
      expected = shapewiener(small{:});
      small = make_valid_args(6, 7, 3, 32);
      rand('state', 1);
      z = rand(640);
      k = rand(640);
      printf('calling\n');
      fflush(stdout);
      shapewiener_denoise(z, 'kernel', k, 'sigma', 0.1, 'threads', 1);
      printf('the long call was not interrupted\n');
    case 'after'
      out = shapewiener(small{:});
      assert(same_bits(out, expected), 'the call after the interrupted one differs');
      printf('session alive\n');
  end
  fflush(stdout);
end
