# Draws the two plots of docs/performance.md.
#
#   gnuplot -c plots.gp VALUES DOCS

set terminal svg size 720,420 background "white" font "sans-serif,13"
set key top left
set grid
set style data linespoints

set output ARG2."/idle.svg"
set title "CPU time of an idle second"
set xlabel "queues"
set ylabel "ms"
set yrange [0:*]
data = ARG1."/idle.dat"
plot data using 1:($2*1e3) title "service and its children", \
     data using 1:($3*1e3) title "shell loop"

set output ARG2."/scaling.svg"
set title "Reading a printer list, listing and comparing the queues"
set xlabel "printers or queues"
set ylabel "CPU time, µs"
set logscale xy
set key bottom right
set yrange [*:*]
data = ARG1."/scaling.dat"
plot data using 1:($2*1e6) title "reading", \
     data using 1:($3*1e6) title "listing", \
     data using 1:($4*1e6) title "listing and comparing, none changed", \
     data using 1:($5*1e6) title "listing and comparing, one gone", \
     data using 1:($6*1e6) title "listing and comparing, all in another order"
