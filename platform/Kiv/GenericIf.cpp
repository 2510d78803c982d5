#include <Kiv/GenericIf.h>

namespace Kiv::GenericIfImpl {

constinit const PtrInterfaceMethods GenericIfPtrInterfaceMethods<Velm::Node>::vtable_ = {
    .refAdd = [](const void* node) { static_cast<const Velm::Node*>(node)->incUse(); },
    .refDel = [](const void* node) { static_cast<const Velm::Node*>(node)->decUseImpl(); },
};

}  // namespace Kiv::GenericIfImpl
