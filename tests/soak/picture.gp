# The picture of a soak: data, picture and place are given.
set terminal svg size 900,600 font "sans-serif,13" background "white"
set output picture
stats data using 1 nooutput
step = int(STATS_records / 120) + 1
set multiplot layout 2,2
set xlabel "minutes"
set key below
set yrange [0:*]
set ytics nomirror
set xtics nomirror
set border 3
set style data lines
set linetype 1 lc rgb "#1f5fa8" lw 1.5
set linetype 2 lc rgb "#c2571a" lw 1.5
set title "Memory, MB"
plot data every step::1 using 1:2 title "server", "" every step::1 using 1:3 title "lasting client"
set title "Descriptors"
set yrange [0:16]
plot data every step::1 using 1:4 title "server, with its clients", "" every step::1 using 1:5 title "lasting client"
set title "Threads"
set yrange [0:4]
set ytics 1
plot data every step::1 using 1:6 title "server", "" every step::1 using 1:7 title "lasting client"
set title "Messages"
set yrange [0.5:*]
set ytics autofreq
set logscale y
set mytics 1
plot data every step::1 using 1:8 title "sent", "" every step::1 using 1:9 title "without an answer", \
  "" every step::1 using 1:13 title "wrong" lt -1
