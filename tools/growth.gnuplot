# How operations grow with the number of key pairs: the module alone, and with the software token.
set terminal svg size 1000,520 dynamic font "sans-serif,13" noenhanced background "white"
set output results."/growth.svg"
set datafile separator "\t"
set multiplot layout 1,2
set logscale xy
set xlabel "key pairs"
set ylabel "microseconds"
set xrange [0.8:700]
set yrange [1:10000]
set grid linecolor "#dddddd"
set key top left
array names[4] = ["search by id", "find everything", "4 attributes, private key", "RSA-2048 signature"]
do for [part in "module token"] {
    set title (part eq "module" ? "The module alone" : "With the software token")
    plot for [i = 0:3] results."/growth-".part.".points" index i using 1:2:3:4 with yerrorlines pt 7 ps 0.5 lc i + 1 \
         title names[i + 1]
}
unset multiplot
