// Test files in the shape Kubios HRV writes its RR exports.
#pragma once
#include <string>
#include <vector>

namespace cvn::test {

// A Kubios HRV Scientific export as it lays out its RR table: "sep=,", a
// results block, the table title, two header rows, then 13 cells per row
// (empty, beat time, RR, spectra, components, ECG time, ECG, marker), CRLF.
inline std::string kubios_export(const std::vector<double>& rr, int ecg_rows_after = 0) {
  std::string t =
      "sep=,\r\nKubios HRV Scientific,version 4.1\r\n\r\nRESULTS FOR SINGLE SAMPLE\r\n"
      "Mean RR  (ms):,812.5\r\n\r\n"
      "RR INTERVAL DATA, SPECTRUM ESTIMATES AND ECG-WAVEFORM\r\n"
      ",Time,RR interval,FFT spectrum,,AR spectrum,,VLF comp,LF comp,HF comp,ECG time,"
      "ECG,Marker\r\n"
      ",(s),(s),(Hz),(s^2/Hz),(Hz),(s^2/Hz),(s),(s),(s),(s),(mV),\r\n";
  double time = 0;
  for (std::size_t i = 0; i < rr.size(); ++i) {
    time += rr[i];
    // The spectrum columns end before the RR column does.
    std::string spectrum = i < 2 ? "0.001,0.2,0.001,0.3" : ",,,";
    t += "," + std::to_string(time) + "," + std::to_string(rr[i]) + "," + spectrum +
         ",0.01,0.02,0.03," + std::to_string(i * 0.002) + ",0.1,\r\n";
  }
  // The ECG waveform may run on after the RR column.
  for (int i = 0; i < ecg_rows_after; ++i) t += ",,,,,,,,,," + std::to_string(i) + ",0.2,\r\n";
  return t;
}

}  // namespace cvn::test
