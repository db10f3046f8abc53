# Clip matrix: a planar homogeneous transform of the module's picture.
# The 3x3 matrix is the module's 4x4 matrix without its depth row and column.
uid = 00050007
name = Clip matrix
param i_clipMatrix_enabled = 1
param f_clipMatrix_m00 = 1.000000
param f_clipMatrix_m01 = 0.000000
param f_clipMatrix_m02 = 0.000000
param f_clipMatrix_m10 = 0.000000
param f_clipMatrix_m11 = 1.000000
param f_clipMatrix_m12 = 0.000000
param f_clipMatrix_m20 = 0.000000
param f_clipMatrix_m21 = 0.000000
param f_clipMatrix_m22 = 1.000000
