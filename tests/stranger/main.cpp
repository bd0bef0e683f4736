// SPDX-License-Identifier: MIT
#include <MasterControllerClientMock.h>

#include <cstdio>

int main() {
  MasterControllerClientMock arm(2, 1);
  SendPacket packet(2);
  packet.SetParamKp("1", 0.5f);
  arm.PushSendQueue(packet, true);
  arm.SendPacketInBuffer();
  arm.ReceiveStatus();
  const float kp = arm.GetLastRecvPacket().joints[1].general[0];
  return std::printf("velta %s\n", arm.GetVersion().c_str()) > 0 && kp == 0.5f ? 0 : 1;
}
