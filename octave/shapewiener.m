% -*- texinfo -*-
% SHAPEWIENER  Shape-adaptive Wiener filter for images with coloured noise.
%   OUT = shapewiener(SCALESET, DSMAP, TBANK, SMBANK, [], [], N, PSD, Y, PLIST, ...
%                     NLF, [], H, PILOT, WVF, COVTHR)
%   (full documentation to follow)
function varargout = shapewiener(varargin)
  error('shapewiener:notBuilt', 'The shapewiener MEX file is not on the path.');
end
