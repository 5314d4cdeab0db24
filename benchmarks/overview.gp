# SPDX-License-Identifier: Apache-2.0
# How many times better ours is than the best peer, for every row of the table.
set terminal svg size 1000, 140 + 17 * rows noenhanced font 'sans-serif,12' \
    background 'white'
set title 'Ours against the best peer: times faster (to the right) or slower (to the left)'
set logscale x 2
set xrange [0.03125:64]
set xtics ('1/32' 0.03125, '1/16' 0.0625, '1/8' 0.125, '1/4' 0.25, '1/2' 0.5, \
           'equal' 1, '2×' 2, '4×' 4, '8×' 8, '16×' 16, '32×' 32, '64×' 64) scale 0
set yrange [rows - 0.3:-0.7]
set ytics scale 0
set grid xtics linecolor '#dddddd'
set border 0
set arrow from 1, graph 0 to 1, graph 1 nohead linewidth 1.5 linecolor '#555555' front
set style fill solid noborder
unset key
# What lies between 1/1.3 and 1.3 tells nothing.
colour(r) = r >= 1.3 ? 0x2a7f62 : r > 1 / 1.3 ? 0xb0b0b0 : 0xc0504d
plot data.'/overview' using (1):1:(1):2:($1 - 0.35):($1 + 0.35):(colour($2)):ytic(3) \
         with boxxyerror linecolor rgb variable, \
     '' using ($2 > 1 ? $2 : 1):1:4 with labels left offset 0.5, 0 font ',10'
