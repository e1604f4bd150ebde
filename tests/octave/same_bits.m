function same = same_bits(a, b)
  % True when A and B are real double arrays of the same size whose
  % elements are identical bit for bit (NaNs included, -0 differs from 0).
  same = isa(a, 'double') && isa(b, 'double') && isreal(a) && isreal(b) && ...
         isequal(size(a), size(b)) && ...
         isequal(typecast(a(:), 'uint64'), typecast(b(:), 'uint64'));
end
