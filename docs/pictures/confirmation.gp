# SPDX-License-Identifier: MIT
# The time line of a confirmed command; called by ./scripts/pictures with the arrows' file and the picture's name.
set terminal svg size 900,250 font "Helvetica,12" background "white"
set output picture
set lmargin 12
set yrange [-0.5:1.5]
set xrange [-15:*]
set xlabel "ms since the command was first sent"
set ytics ("controller" 0, "host" 1) nomirror
set xtics nomirror
set border 1
unset key
set style arrow 1 head filled size 6,20 lc rgb "#c0392b" lw 2 dt 2
set style arrow 2 head filled size 6,20 lc rgb "#2e6da4" lw 2.5
set style arrow 3 head filled size 4,20 lc rgb "#b8c4d0" lw 1
set style arrow 4 head filled size 6,20 lc rgb "#3c8d40" lw 2.5
set label 1 "command, stamp t:\nlost on the way" at first 4, 1.3 tc rgb "#c0392b"
set label 2 "statuses without its echo" at graph 0.5, first 1.15 center tc rgb "#7f8c9b"
set label 3 "100 steps without the echo:\nsent again, stamp t+1" at graph 0.97, first 1.3 right tc rgb "#2e6da4"
set label 4 "the echo of t+1:\nconfirmed" at graph 0.97, first -0.2 right tc rgb "#3c8d40"
plot 1 lc rgb "#5b7a99", 0 lc rgb "#5b7a99", \
     arrows using 1:2:($3-$1):($4-$2):5 with vectors arrowstyle variable
