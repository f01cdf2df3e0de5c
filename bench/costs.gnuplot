# What a query costs over the size of the tables, from the numbers that report.py has written into `folder`.
set terminal svg size 900,560 background "white" font "sans,12"
set multiplot layout 1,2
set logscale xy
set format x "10^{%L}"
set format y "10^{%L}"
set ylabel "microseconds"
set grid
set bmargin 12
set key below maxcols 2 reverse Left font ",10" samplen 2

set title "A link, its address, all names"
set xlabel "links"
set xrange [2:10000]
set yrange [0.1:1e5]
plot folder."/peers.dat" using 1:4 with linespoints pt 1 lc "#999999" title "link and address: ip", \
     "" using 1:3 with linespoints pt 2 lc "#cc7722" title "link and address: pyroute2's NDB", \
     "" using 1:2 with linespoints pt 3 lc "#7744aa" title "link and address: Go library", \
     folder."/links.dat" using 1:2 with linespoints pt 7 lc "#0055cc" title "getInterface", \
     "" using 1:3 with lines dt 2 lc "#0055cc" title "  the same over libnl", \
     "" using 1:4 with linespoints pt 5 lc "#118833" title "getIps", \
     "" using 1:5 with lines dt 2 lc "#118833" title "  the same over libnl", \
     "" using 1:6 with linespoints pt 9 lc "#bb2222" title "getListOfInterfaces", \
     "" using 1:7 with lines dt 2 lc "#bb2222" title "  the same over libnl"

set title "A route by its destination"
set xlabel "routes"
set xrange [50:50000]
set yrange [1:1e4]
plot folder."/routes.dat" using 1:2 with linespoints pt 7 lc "#0055cc" title "getRoute", \
     "" using 1:3 with lines dt 2 lc "#0055cc" title "  the same over libnl"
unset multiplot
