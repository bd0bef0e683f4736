# SPDX-License-Identifier: MIT
# gnuplot -e "data='scaling.dat'; plot_file='scaling.svg'" scaling.gp
set terminal svg size 760,440 font "sans,12" background "white"
set output plot_file
set logscale xy
set xlabel "size (joints, sources, keys or packets)"
set ylabel "ns per cycle (per packet for the receive step)"
set key below
set grid
plot for [i=0:5] data index i using 1:2 with linespoints title columnheader(1)
