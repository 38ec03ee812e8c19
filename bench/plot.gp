# Chart of one kiv_bench run from the data files that bench/report.py writes.
#   gnuplot -e "datadir='build'; out='docs/bench.png'" bench/plot.gp
if (!exists("datadir")) datadir = "build"
if (!exists("out")) out = "docs/bench.png"

sqlite = datadir."/bench_sqlite.dat"
rate = datadir."/bench_service_rate.dat"
late50 = datadir."/bench_service_late50.dat"
late99 = datadir."/bench_service_late99.dat"
# Number of data columns: the words of the header line less the label column.
columns(f) = words(system("head -n 1 '".f."' 2>/dev/null")) - 1
rows(f) = int(system("tail -n +2 '".f."' 2>/dev/null | wc -l"))

set terminal pngcairo size 1400,1000 font "DejaVu Sans,12" noenhanced
set output out

set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9 relative
set grid ytics lc rgb "#cccccc"
set key top left horizontal
set yrange [0:*]
set offsets 0, 0, graph 0.12, 0
set datafile missing "-"
# The first line of every data file names its columns.
set key autotitle columnhead
colours = "#4c72b0 #8c8c8c #c44e52 #55a868 #8172b2 #ccb974"


service = (rows(rate) > 0 || rows(late50) > 0)
set multiplot title "kiv_database benchmarks: medians of one run of kiv_bench" font ",14"

# Bar i of n in a cluster sits this far from the cluster's centre.
shift(i, n) = (i - (n + 1) / 2.0) / (n + 1.0)

if (service) { set origin 0, 0.42; set size 1, 0.54 } else { set origin 0, 0; set size 1, 0.96 }
n = columns(sqlite)
set xrange [-0.6:rows(sqlite) - 0.4]
set title "SQLite: time per row, 100,000 rows of an integer and a 20-byte text, in-memory database"
set ylabel "ns per row (lower is better)"
set xlabel "workload"
plot for [i=2:n+1] sqlite using i:xtic(1) title columnhead(i) lc rgb word(colours, i-1), \
     for [i=2:n+1] sqlite using ($0 + shift(i-1, n)):(column(i)):(sprintf("%.0f", column(i))) \
         with labels offset 0,0.7 font ",9" notitle

if (service) {
    set xlabel "benchmark"
    set origin 0, 0; set size 0.5, 0.42
    m = columns(rate)
    set xrange [-0.6:rows(rate) - 0.4]
    set title "Thread service: exec throughput"
    set ylabel "million jobs per second (higher is better)"
    plot for [i=2:m+1] rate using i:xtic(1) title columnhead(i) lc rgb word(colours, i-1), \
         for [i=2:m+1] rate using ($0 + shift(i-1, m)):(column(i)):(sprintf("%.2f", column(i))) \
             with labels offset 0,0.7 font ",9" notitle

    set origin 0.5, 0; set size 0.5, 0.42
    m = columns(late50)
    set title "Thread service: timer lateness (dark: median, light: p99)"
    set ylabel "microseconds late (lower is better)"
    set boxwidth 1.0 / (m + 1) absolute
    set offsets 0, 0, graph 0.35, 0
    set xrange [-0.5:rows(late50) - 0.5]
    plot late99 using 0:(0):xtic(1) with points ps 0 notitle, \
         for [i=2:m+1] late99 using ($0 + shift(i-1, m)):(column(i)) with boxes \
             title columnhead(i)." p99" lc rgb word(colours, i-1) fs transparent solid 0.3, \
         for [i=2:m+1] late50 using ($0 + shift(i-1, m)):(column(i)) with boxes \
             title columnhead(i)." median" lc rgb word(colours, i-1), \
         for [i=2:m+1] late99 using ($0 + shift(i-1, m)):(column(i)):(sprintf("%.0f", column(i))) \
             with labels offset 0,0.7 font ",9" notitle
}
unset multiplot
