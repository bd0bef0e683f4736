// SPDX-License-Identifier: MIT
// Keeps the last seconds of the link in memory and writes them when something goes wrong, or on demand.
// usage: session_flight_record [LINK [FILE]]
#include <velta_session.h>

#include <cstdio>
#include <thread>

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  velta::SessionOptions options;
  options.link = argc > 1 ? argv[1] : "sim:";
  options.joints = 6;
  options.flight_recorder = 10s;
  const std::string path = argc > 2 ? argv[2] : "flight.vrec";
  options.flight_record_path = path;  // on a loss, a give-up or the dead-man: flight.vrec, flight-2.vrec, ...
  velta::Session arm(options);
  arm.Start();
  std::string why;
  if (!arm.WaitConnected(3s, &why)) {
    std::fprintf(stderr, "session_flight_record: %s\n", why.c_str());
    return 1;
  }

  SendPacket servo(6), move(6);
  servo.SetServoOn("all");
  move.SetRefPosition("0/1", 5);
  arm.Send(servo, velta::Confirm::kYes);
  arm.Send(move, velta::Confirm::kYes).Wait(1s);
  std::this_thread::sleep_for(500ms);

  if (!arm.WriteFlightRecord(path, &why)) {
    std::fprintf(stderr, "session_flight_record: %s\n", why.c_str());
    return 1;
  }
  std::printf("%s: see velta convert %s, velta plot %s, velta play %s LINK\n", path.c_str(), path.c_str(), path.c_str(),
              path.c_str());
}
