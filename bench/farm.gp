# Draws the plot of the farm in docs/performance.md.
#
#   gnuplot -c farm.gp VALUES DOCS

set terminal svg size 720,420 background "white" font "sans-serif,13"
set output ARG2."/farm.svg"
set title "A guest by the number of guests on the machine"
set xlabel "guests"
set logscale x
set grid
set style data linespoints
set ylabel "CPU time a second, ms"
set yrange [0:*]
set y2label "proportional memory, KiB"
set y2range [0:*]
set y2tics
set ytics nomirror
set key outside bottom
data = ARG1."/farm.dat"
plot data using 1:($2*1e3) title "service alone", \
     data using 1:($3*1e3) title "service and tools", \
     data using 1:($4*1e3) title "shell loop", \
     data using 1:5 axes x1y2 title "memory of the service (right)"
