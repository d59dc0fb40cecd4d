# The module with the software token in relation to another module: one row an operation, on a logarithmic scale.
set terminal svg size 1000,760 dynamic font "sans-serif,13" noenhanced background "white"
set output results."/comparison.svg"
set datafile separator "\t"
set title "Time in relation to SoftHSM's (left of 1: faster)"
set logscale x
set xlabel "ratio (point: median, bar: quartiles)"
stats results."/ratios-10.points" using 1 nooutput
set yrange [STATS_max + 0.6 : 0.4]
set ytics out nomirror
set grid x y linecolor "#dddddd"
set arrow from 1, graph 0 to 1, graph 1 nohead linecolor "#888888" linewidth 2
set key outside bottom center horizontal
plot results."/ratios-10.points" using 2:($1 - 0.2):3:4:ytic(5) with xerrorbars pt 7 ps 0.6 lc "#1b9e77" title "10 key pairs", \
     results."/ratios-100.points" using 2:1:3:4 with xerrorbars pt 7 ps 0.6 lc "#d95f02" title "100", \
     results."/ratios-500.points" using 2:($1 + 0.2):3:4 with xerrorbars pt 7 ps 0.6 lc "#7570b3" title "500"
