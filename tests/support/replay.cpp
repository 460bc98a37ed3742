#include "support/replay.h"

#include <string.h>

namespace qvn_test {

void ReplayThroughTable(const std::vector<SimEvent> &events, int8_t hw_gyro,
                        const std::function<void(const StepOutputs &)> &visit) {
  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  ChipInfo info = {0, 0, hw_gyro};
  api.QVN_CaliInitLib(&info);
  bool seen_mag = false;
  for (const SimEvent &e : events) {
    SensorEvent s;
    s.timestamp = e.t_ns;
    s.x = e.x;
    s.y = e.y;
    s.z = e.z;
    s.accuracy = 3;
    switch (e.sensor) {
      case Sensor::kAcc:
        api.QVN_CaliApiSetAccelData(&s);
        break;
      case Sensor::kGyr:
        if (seen_mag) api.QVN_CaliApiSetGyroData(&s);
        break;
      case Sensor::kMag: {
        StepOutputs out;
        memset(&out, 0, sizeof out);
        api.QVN_CaliApiSetMagData(&s);
        api.QVN_DoCaliAPI(&s, &out.cali);
        api.QVN_FusionGetGravity(&out.fusion[0]);
        api.QVN_FusionGetRotationVector(&out.fusion[1]);
        api.QVN_FusionGetOrientation(&out.fusion[2]);
        api.QVN_FusionGetLinearaccel(&out.fusion[3]);
        api.QVN_FusionGetGameRotationVector(&out.fusion[4]);
        api.QVN_FusionGetGeoMagnetic(&out.fusion[5]);
        api.QVN_FusionGetVirtualGyro(&out.fusion[6]);
        seen_mag = true;
        visit(out);
        break;
      }
    }
  }
}

}  // namespace qvn_test
