function pre_install (desc)
  % Says what the long step of pkg install is about to do.
  printf ('%s %s: compiling the MEX files with mkoctfile (about a minute or two)...\n', ...
          desc.name, desc.version);
  fflush (stdout);
end
