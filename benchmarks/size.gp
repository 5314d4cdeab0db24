# SPDX-License-Identifier: Apache-2.0
# How cost grows with size.
set terminal svg size 1100, 820 noenhanced font 'sans-serif,12' \
    background 'white'
set multiplot layout 2, 2
set logscale xy
set grid linecolor '#dddddd'
set key top left Left reverse samplen 2 font ',11'
set style line 1 linecolor '#2a7f62' linewidth 3 pointtype 7 pointsize 0.8
set style line 2 linecolor '#4a78b5' linewidth 1.5 pointtype 5 pointsize 0.6
set style line 3 linecolor '#d08020' linewidth 1.5 pointtype 9 pointsize 0.7
set style line 4 linecolor '#8a5ba6' linewidth 1.5 pointtype 11 pointsize 0.7
set style line 5 linecolor '#999999' linewidth 1.5 dashtype 2 pointtype 6 pointsize 0.5
panel(name) = sprintf('%s/%s', data, name)
set ytics ('1 ns' 1, '10 ns' 10, '100 ns' 100, '1 µs' 1e3, '10 µs' 1e4, '100 µs' 1e5, '1 ms' 1e6, \
           '10 ms' 1e7, '100 ms' 1e8, '1 s' 1e9)
set offsets graph 0.05, graph 0.05, 0, 0

set xtics ('64 B' 64, '4 KiB' 4096, '64 KiB' 65536, '1 MiB' 1048576, '256 MiB' 268435456)
set title 'append pieces of 256 B, up to'
plot for [i = 2:6] panel('append') using 1:i with linespoints linestyle i - 1 title columnheader(i)
set title 'open a stream and read all of it'
plot for [i = 2:6] panel('read') using 1:i with linespoints linestyle i - 1 title columnheader(i)
set xtics ('16' 16, '256' 256, '4,096' 4096, '100,000' 1e5)
set yrange [5:*]
set title 'look up once among so many records'
plot for [i = 2:6] panel('has') using 1:i with linespoints linestyle i - 1 title columnheader(i)
set xtics ('1' 1, '100' 100, '10,000' 1e4, '1,000,000' 1e6)
set title 'create and destroy one serialiser of so many'
plot for [i = 2:4] panel('fan_out') using 1:i with linespoints linestyle i - 1 title columnheader(i)
unset multiplot
