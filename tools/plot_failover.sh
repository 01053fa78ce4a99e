#!/bin/sh
# Turns the time series that orch_failover writes with --csv into a PNG: top,
# the active node's DAM and FES queue depths against the high water; bottom,
# the entries the active and the standby node hand their tables per second.
# Kills are marked red, restarts and takeovers green. Needs gnuplot
# (Debian: apt-get install gnuplot-nox).
#   tools/plot_failover.sh failover.csv [failover.png]
set -eu
. "$(dirname "$0")/plot_lib.sh"
qov_plot_args "t_s,dam_depth,fes_depth,high_water,delivered_s,standby_dam_depth,standby_fes_depth,standby_delivered_s,event" "$0" "$@"

gnuplot <<GNUPLOT
set terminal pngcairo size 1200,800 font ",10"
set output "$png"
set datafile separator ","
set key top left
set grid
set multiplot layout 2,1 title "orch\\\\_failover: the active node's queues and both nodes' deliveries"
set y2range [0:1]
unset y2tics
set ylabel "entries queued (active node)"
set yrange [0:*]
plot "$csv" using 1:((int(\$9) & 1) ? 1 : NaN) axes x1y2 with impulses lw 2 lc rgb "#d62728" title "kill", \
     "" using 1:((int(\$9) & 2) ? 0.9 : NaN) axes x1y2 with impulses lw 2 lc rgb "#2ca02c" title "restart / takeover", \
     "" using 1:2 with lines lw 2 lc rgb "#1f77b4" title "DAM depth", \
     "" using 1:3 with lines lw 2 lc rgb "#17becf" title "FES depth", \
     "" using 1:4 with lines dt 2 lc rgb "#444444" title "high water"
set ylabel "entries handed to the table / s"
set xlabel "seconds"
plot "$csv" using 1:((int(\$9) & 1) ? 1 : NaN) axes x1y2 with impulses lw 2 lc rgb "#d62728" notitle, \
     "" using 1:((int(\$9) & 2) ? 0.9 : NaN) axes x1y2 with impulses lw 2 lc rgb "#2ca02c" notitle, \
     "" using 1:5 with lines lw 2 lc rgb "#1f77b4" title "active", \
     "" using 1:8 with lines lw 2 lc rgb "#ff7f0e" title "standby"
unset multiplot
GNUPLOT
echo "$png"
