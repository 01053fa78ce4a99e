#!/bin/sh
# Turns the time series that orch_demo writes with --csv into a PNG:
# top, the DAM and FES queue depths against the high and low water marks with
# the back-pressure episodes shaded; bottom, the entry rates received and
# delivered and the time the broker was held back. Needs gnuplot
# (Debian: apt-get install gnuplot-nox).
#   tools/plot_csv.sh demo.csv [demo.png]
# Columns (header line first): t_s, dam_depth, fes_depth, high_water,
# low_water, backpressure, recv_msgs_s, recv_entries_s, delivered_s, broker_blocked_ms
set -eu
. "$(dirname "$0")/plot_lib.sh"
qov_plot_args "t_s,dam_depth,fes_depth,high_water,low_water,backpressure,recv_msgs_s,recv_entries_s,delivered_s,broker_blocked_ms" "$0" "$@"

gnuplot <<GNUPLOT
set terminal pngcairo size 1200,800 font ",10"
set output "$png"
set datafile separator ","
set key autotitle columnhead top left
set grid
set multiplot layout 2,1 title "orch\\\\_demo: merge queues under the broker's load"
set ylabel "entries queued"
set yrange [0:*]
set offsets 0, 0, graph 0.12, 0
set y2label "back-pressure"
set y2range [0:1.05]
set y2tics (0, 1)
set style fill transparent solid 0.15 noborder
plot "$csv" using 1:6 axes x1y2 with filledcurves x1 lc rgb "#d62728" title "back-pressure on", \
     "" using 1:2 with lines lw 2 lc rgb "#1f77b4" title "DAM depth", \
     "" using 1:3 with lines lw 2 lc rgb "#2ca02c" title "FES depth", \
     "" using 1:4 with lines dt 2 lc rgb "#444444" title "high water", \
     "" using 1:5 with lines dt 3 lc rgb "#888888" title "low water"
unset y2label
unset y2tics
set y2tics
set xlabel "seconds"
set ylabel "entries per second"
set yrange [0:*]
set offsets 0, 0, graph 0.12, 0
set y2label "broker blocked, ms per second (both paths)"
set y2range [0:*]
plot "$csv" using 1:8 with lines lw 2 lc rgb "#1f77b4" title "received", \
     "" using 1:9 with lines lw 2 lc rgb "#ff7f0e" title "delivered to handlers", \
     "" using 1:10 axes x1y2 with lines lc rgb "#d62728" title "broker blocked"
unset multiplot
GNUPLOT
echo "$png"
