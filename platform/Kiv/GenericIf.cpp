#include <Kiv/GenericIf.h>

namespace Kiv::GenericIfImpl {

constinit PtrInterfaceMethods const GenericIfPtrInterfaceMethods<Velm::Node>::vtable_ = {
    .refAdd = [](void const* node) { static_cast<Velm::Node const*>(node)->incUse(); },
    .refDel = [](void const* node) { static_cast<Velm::Node const*>(node)->decUseImpl(); },
};

}  // namespace Kiv::GenericIfImpl
