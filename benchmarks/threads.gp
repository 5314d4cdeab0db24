# SPDX-License-Identifier: Apache-2.0
# How look-ups grow with the threads that make them at once.
set terminal svg size 760, 460 noenhanced font 'sans-serif,12' \
    background 'white'
set title 'hasDeserialiserFor among 4,096 records, by threads at once'
set grid linecolor '#dddddd'
set key outside right top Left reverse samplen 2
set xlabel 'threads'
set ylabel 'million look-ups a second, all threads together'
set yrange [0:*]
set logscale x 2
set offsets graph 0.1, graph 0.1, 0, 0
set style line 1 linecolor '#2a7f62' linewidth 3 pointtype 7
set style line 2 linecolor '#4a78b5' linewidth 1.5 pointtype 5 pointsize 0.7
set style line 3 linecolor '#d08020' linewidth 1.5 pointtype 9 pointsize 0.8
set style line 4 linecolor '#8a5ba6' linewidth 1.5 pointtype 11 pointsize 0.8
set style line 5 linecolor '#999999' linewidth 1.5 dashtype 2 pointtype 6 pointsize 0.6
plot for [i = 2:6] data.'/threads' using 1:(1000 / column(i)) with linespoints \
    linestyle i - 1 title columnheader(i)
