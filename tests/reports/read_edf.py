# Prints what MNE reads from an EDF+ file: "samples <n>", then one line
# "<onset seconds> <description>" per annotation.
import sys

import mne

raw = mne.io.read_raw_edf(sys.argv[1], preload=False, verbose="error")
print("samples", raw.n_times)
for onset, text in zip(raw.annotations.onset, raw.annotations.description):
    print("%.3f %s" % (onset, text))
