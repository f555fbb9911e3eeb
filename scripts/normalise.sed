# What varies from one run of mcu_tool2 to the next, made constant (sed -E):
# source line numbers in diagnostics, trace time stamps, the statistics'
# elapsed time and the build stamp. Shared by the end-to-end cases and
# scripts/transcripts.sh, so that both compare output the same way.
s/\<([A-Za-z_][A-Za-z0-9_]*) [0-9]+, /\1 #, /g
s/<[0-9]+\.[0-9]{6}>/<T>/g
s/elapse -?[0-9]+\.-?[0-9]{3} s/elapse #.### s/
s/Build [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}/Build <date> <time>/
