# Lens distortion: a radial correction about a shiftable centre with
# horizontal and vertical field weights (our shader; the parameter search
# tunes it). Texture coordinate t (0..1) is drawn from source coordinate s:
#   c = (0.5 + xshift, 0.5 + yshift)      d = 2 (t - c)
#   q = (dx^2 + dy^2) / 2                 g = F * q^(pwp / 2)
#   k = 1 + g (method 0, polynomial)  or  1 / (1 + g) (method 1, division)
#   s = c + ((0.5 + H) dx k, (0.5 + V) dy k) / 2
# F = 0, H = V = 0.5 and no shift leave the picture unchanged.
uid = 00060001
name = Lens distortion
param f_TCorrection_F = 0.000000
param f_TCorrection_H = 0.500000
param f_TCorrection_V = 0.500000
param f_ps_distortion_ext_xshift = 0.000000
param f_ps_distortion_ext_yshift = 0.000000
param i_ps_distortion_ext_pwp = 2
param i_ps_distortion_ext_method = 0
