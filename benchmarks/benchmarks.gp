# SPDX-License-Identifier: Apache-2.0
# How many times better courier is than the best alternative, for each row of the front table.
set terminal svg size 900, 110 + 20 * rows noenhanced font 'sans-serif,12' background 'white'
set title 'Times better than the best alternative (left of 1: worse)'
set logscale x 2
set xrange [0.03125:64]
set xtics ('1/32' 0.03125, '1/16' 0.0625, '1/8' 0.125, '1/4' 0.25, '1/2' 0.5, \
           '1' 1, '2' 2, '4' 4, '8' 8, '16' 16, '32' 32, '64' 64) scale 0
set yrange [rows - 0.3:-0.7]
set ytics scale 0
set grid xtics linecolor '#dddddd'
set border 0
set arrow from 1, graph 0 to 1, graph 1 nohead linewidth 1.5 linecolor '#555555' front
set style fill solid noborder
unset key
# Ratios between 1/1.3 and 1.3 are within the noise.
colour(r) = r >= 1.3 ? 0x2a7f62 : r > 1 / 1.3 ? 0xb0b0b0 : 0xc0504d
shown(r) = r < 64 ? r : 64
plot data using (1):1:(1):(shown($2)):($1 - 0.35):($1 + 0.35):(colour($2)):ytic(3) \
         with boxxyerror linecolor rgb variable, \
     '' using ($2 >= 8 ? 1.1 : $2 > 1 ? $2 : 1):1:4:($2 >= 8 ? 0xffffff : 0x000000) \
         with labels left offset 0.5, 0 font ',10' textcolor rgb variable
