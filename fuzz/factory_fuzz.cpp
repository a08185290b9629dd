// The SIM count from an arbitrary /efs/factory.prop.
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    fuzz::write_file("/efs/factory.prop", in.data, in.size);
    const int count = ProtocolTarn().get_factory_prop();
    fuzz::expect(count == -22 || (count >= -'0' && count <= 255 - '0'),
                 "one byte minus '0', or a refusal");
}
