function args = make_valid_args(m, k, h, n)
  % ARGS = make_valid_args(M, K, H, N) builds the sixteen arguments of one
  % valid call as a 1x16 cell, for shapewiener(ARGS{:}): an M x K smooth
  % image (the pilot holds the same values in an array of its own, as the
  % dither writes into both), every direction at the single scale H, square
  % sector masks, orthonormal DCT matrices for lengths 1 .. 2H-1, a flat
  % noise spectrum on an N x N grid, and a processing list that visits
  % every pixel once, grouped (one key per group) by how the pixel's box is
  % clipped at the image border. Defaults: 5 x 6 image, H = 2, N = 32.
  if nargin < 1, m = 5; end
  if nargin < 2, k = 6; end
  if nargin < 3, h = 2; end
  if nargin < 4, n = 32; end
  w = 2 * h - 1;

  bank = cell(w, 1);
  for len = 1:w
    bank{len} = dct_matrix(len);
  end

  args = cell(1, 16);
  args{1} = h;                                   % ScaleSet: one scale
  args{2} = ones(m, k, 8, 'uint8');              % DirectionScaleMap
  args{3} = bank;                                % TransformBank
  args{4} = square_masks(h);                     % SectorMaskBank
  args{5} = [];
  args{6} = [];
  args{7} = n;                                   % DFT size
  args{8} = 0.01 * ones(n, n);                   % NoisePsd
  args{9} = smooth_image(m, k);                  % NoisyImage
  args{10} = border_grouped_list(m, k, h);       % ProcessingList
  args{11} = 1;                                  % NoiseLevelFactor
  args{12} = [];
  args{13} = h;                                  % MaxScale
  args{14} = smooth_image(m, k);                 % PilotImage: equal values,
                                                 % its own array
  args{15} = 1;                                  % WienerVarianceFactor
  args{16} = 1e9;                                % CoverageThreshold
end

function t = dct_matrix(len)
  % Orthonormal DCT-II: row f is the f-th basis vector (0-based f).
  [s, f] = meshgrid(0:len-1, 0:len-1);
  t = cos(pi * (2 * s + 1) .* f / (2 * len));
  t(1, :) = t(1, :) * sqrt(1 / len);
  t(2:end, :) = t(2:end, :) * sqrt(2 / len);
end

function masks = square_masks(h)
  % Cell (a, b, d) is the square of Chebyshev radius min(a, b) - 1 around
  % the centre of the (2H-1) x (2H-1) box, whatever the direction d.
  w = 2 * h - 1;
  [dj, di] = meshgrid(abs((0:w-1) - (h - 1)), abs((0:w-1) - (h - 1)));
  chebyshev = max(di, dj);
  masks = cell(h, h, 8);
  for d = 1:8
    for b = 1:h
      for a = 1:h
        masks{a, b, d} = uint8(chebyshev <= min(a, b) - 1);
      end
    end
  end
end

function img = smooth_image(m, k)
  % A smooth image in [0.1, 0.9] with a step between the two halves.
  [x, y] = meshgrid(0:k-1, 0:m-1);
  img = 0.5 + 0.25 * sin(0.21 * y + 0.1) .* cos(0.17 * x) + 0.15 * (2 * (x > floor(k / 2)) - 1);
end

function list = border_grouped_list(m, k, h)
  % Every pixel once; pixels whose boxes are clipped alike share a key and
  % are consecutive.
  [x, y] = meshgrid(0:k-1, 0:m-1);
  reach = h - 1;
  clip = [min(y(:), reach), min(m - 1 - y(:), reach), min(x(:), reach), min(k - 1 - x(:), reach)];
  [~, ~, group] = unique(clip, 'rows');
  [key, pixel] = sort(group);
  list = int32([pixel(:), key(:)]);
  list = reshape(list, m * k, 2);
end
