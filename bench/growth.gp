# Draws the curves of $plots/*.dat; run by scripts/bench-plots. Bars are from the least to the greatest of the rounds.
set encoding utf8
set style line 1 lc rgb "#777777" lw 1.5 pt 4 ps 0.6
set style line 2 lc rgb "#777777" lw 1.5 pt 6 ps 0.6 dt 2
set style line 3 lc rgb "#222222" lw 1.5 pt 8 ps 0.6
set style line 4 lc rgb "#c0392b" lw 1.5 pt 5 ps 0.6
set style line 5 lc rgb "#2471a3" lw 1.5 pt 7 ps 0.6
set style line 6 lc rgb "#1e8449" lw 1.5 pt 9 ps 0.6
set grid lc rgb "#dddddd"
set key outside above horizontal maxrows 3 reverse Left samplen 2 width -4

data(name) = plots . "/" . name . ".dat"
svg(name) = plots . "/" . name . ".svg"

set terminal svg size 800,440 font "sans-serif,13" background "white"

# By outstanding posts.
set logscale x 2
set xlabel "outstanding posts"
set xtics (1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1016)
set xrange [0.8:1300]

set output svg("throughput")
set ylabel "posts a second"
set logscale y
plot for [i=0:5] data("load") index i using 1:2:7:12 with yerrorlines ls i+1 title columnheader(1)

set output svg("p50")
set ylabel "half of the posts take at most, ms"
plot for [i=0:5] data("load") index i using 1:3:8:13 with yerrorlines ls i+1 title columnheader(1)

set output svg("p99")
set ylabel "99 of 100 posts take at most, ms"
plot for [i=0:5] data("load") index i using 1:4:9:14 with yerrorlines ls i+1 title columnheader(1)

set output svg("cost")
unset logscale y
set ylabel "processor time a post, µs"
set yrange [0:*]
plot for [i=0:5] data("load") index i using 1:5:10:15 with yerrorlines ls i+1 title columnheader(1)

set output svg("instructions")
set ylabel "instructions a post, thousands"
plot data("instructions") using 1:(($2+$3+$4)/1000) with linespoints ls 1 title "all", \
     "" using 1:($3/1000) with linespoints ls 3 title "in libcurl", \
     "" using 1:($2/1000) with linespoints ls 4 title "in the library"

set output svg("memory")
set xlabel "outstanding requests"
set ylabel "heap beyond bare multi handles, bytes a request"
set yrange [0:1100]
plot 1024 with lines lc rgb "#bbbbbb" dt 2 title "1 KiB", \
     for [i=1:3] data("memory") index i using 1:3:5:7 with yerrorlines ls i+3 title columnheader(1)

# By tasks and instances.
set output svg("spread")
set xlabel "tasks, or instances"
set xrange [0.9:18]
set yrange [0:*]
set ylabel "processor time a post, µs"
plot for [i=0:1] data("spread") index i using 1:5:10:15 with yerrorlines ls i+4 title columnheader(1)

set output svg("idle")
set xlabel "idle tasks"
set xrange [0.9:72]
set ylabel "processor time in a second, ms"
set logscale xy
set autoscale y
plot data("idle") index 0 using 1:2:4:6 with yerrorlines ls 4 title columnheader(1), \
     "" index 1 using 1:2:4:6 with yerrorlines ls 1 title columnheader(1)

# By the size of an answer.
set xlabel "bytes of an answer"
set xtics ("1 KB" 1024, "4 KB" 4096, "16 KB" 16384, "64 KB" 65536, "256 KB" 262144, "1 MB" 1048576, \
           "4 MB" 4194304, "16 MB" 16777216)
set xrange [800:20000000]

set output svg("answers")
set ylabel "processor time an answer, ms"
plot for [i=0:5] data("answers") index i using 1:3:8:13 with yerrorlines ls i+1 title columnheader(1)

set output svg("reallocations")
set ylabel "bytes that reallocations keep, MB an answer"
set xrange [12000:20000000]
plot data("answers") index 2 using 1:6 with linespoints ls 4 title "exact sizes", \
     "" index 0 using 1:6 with linespoints ls 1 title "a buffer that doubles"

# By the length of a list.
set output svg("lists")
set xlabel "elements"
set ylabel "a walk, ns an element"
set xtics (8, 16, 32, 64, 128, 256, 512, 1024)
set xrange [7:1200]
plot for [i=0:5] data("lists") index i using 1:3:5:7 with yerrorlines ls 4+i/2 dt 1+i%2 title columnheader(1)
