// The views in a build without them: dlna_dmsSetViews refuses to switch
// them on (dmsFeatureBuilt), so none is ever made and the ContentDirectory
// shows the folders alone, as with the views switched off.  The calls are
// defined only because the code around them names them.
#include "views/dmsViewsInternal.h"

dmsViews::dmsViews(dmsContentListInfo *list) : list_(list) {}

dmsViews::~dmsViews() = default;

void dmsViews::rebuild() {}

void dmsViews::apply(const dmsClmChangeSet &, std::vector<uint32_t> &) {}

bool dmsViews::find(uint32_t, dmsViewObject &) const { return false; }

dmsViews::Order dmsViews::children(uint32_t) const { return nullptr; }

dmsViews::Order dmsViews::playlistsIn(uint32_t) const { return nullptr; }
