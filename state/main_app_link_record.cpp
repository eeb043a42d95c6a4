#include "state/main_app_link_record.h"

namespace kestrelbridge {

MainAppLink& GetMainAppLink() {
  static constinit MainAppLink link{};
  return link;
}

}  // namespace kestrelbridge
