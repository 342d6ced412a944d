#include "tags/dmsClmPicture.h"

#include <taglib/asffile.h>
#include <taglib/asfpicture.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/mp4coverart.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

#include "tags/dmsClmTagLib.h"
#include "util/dmsGuard.h"

namespace {

// Keeps the best picture seen: a front cover beats any other.  TagLib's
// byte vectors share their data, so keeping one by value copies nothing.
class PictureChoice {
 public:
  void offer(const TagLib::ByteVector &data, bool front) {
    if (data.isEmpty() || data.size() > DMS_CLM_MAX_PICTURE_BYTES) return;
    if (!chosen_ || (front && !front_)) {
      picture_ = data;
      chosen_ = true;
      front_ = front;
    }
  }
  bool take(std::string *out) const {
    if (!chosen_) return false;
    if (out != nullptr) out->assign(picture_.data(), picture_.size());
    return true;
  }

 private:
  TagLib::ByteVector picture_;
  bool chosen_ = false;
  bool front_ = false;
};

void offerId3v2(TagLib::ID3v2::Tag *tag, PictureChoice &choice) {
  if (tag == nullptr) return;
  for (TagLib::ID3v2::Frame *frame : tag->frameList("APIC")) {
    if (auto *picture = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame *>(frame)) {
      choice.offer(picture->picture(), picture->type() == TagLib::ID3v2::AttachedPictureFrame::FrontCover);
    }
  }
}

void offerXiph(TagLib::Ogg::XiphComment *comment, PictureChoice &choice) {
  if (comment == nullptr) return;
  for (TagLib::FLAC::Picture *picture : comment->pictureList()) {
    choice.offer(picture->data(), picture->type() == TagLib::FLAC::Picture::FrontCover);
  }
}

}  // namespace

bool dmsClmPictureOf(TagLib::File &file, std::string *out) {
  PictureChoice choice;
  if (auto *mpeg = dynamic_cast<TagLib::MPEG::File *>(&file)) {
    offerId3v2(mpeg->ID3v2Tag(), choice);
  } else if (auto *wav = dynamic_cast<TagLib::RIFF::WAV::File *>(&file)) {
    offerId3v2(wav->ID3v2Tag(), choice);
  } else if (auto *flac = dynamic_cast<TagLib::FLAC::File *>(&file)) {
    for (TagLib::FLAC::Picture *picture : flac->pictureList()) {
      choice.offer(picture->data(), picture->type() == TagLib::FLAC::Picture::FrontCover);
    }
    offerXiph(flac->xiphComment(), choice);
  } else if (auto *mp4 = dynamic_cast<TagLib::MP4::File *>(&file)) {
    TagLib::MP4::Tag *tag = mp4->tag();
    if (tag != nullptr && tag->contains("covr")) {
      const TagLib::MP4::CoverArtList covers = tag->item("covr").toCoverArtList();
      if (!covers.isEmpty()) choice.offer(covers.front().data(), true);
    }
  } else if (auto *asf = dynamic_cast<TagLib::ASF::File *>(&file)) {
    TagLib::ASF::Tag *tag = asf->tag();
    if (tag != nullptr && tag->contains("WM/Picture")) {
      for (const TagLib::ASF::Attribute &attribute : tag->attribute("WM/Picture")) {
        const TagLib::ASF::Picture picture = attribute.toPicture();
        if (!picture.isValid()) continue;
        choice.offer(picture.picture(), picture.type() == TagLib::ASF::Picture::FrontCover);
      }
    }
  } else if (auto *vorbis = dynamic_cast<TagLib::Ogg::Vorbis::File *>(&file)) {
    offerXiph(vorbis->tag(), choice);
  } else if (auto *opus = dynamic_cast<TagLib::Ogg::Opus::File *>(&file)) {
    offerXiph(opus->tag(), choice);
  } else if (auto *oggFlac = dynamic_cast<TagLib::Ogg::FLAC::File *>(&file)) {
    offerXiph(oggFlac->tag(), choice);
  }
  return choice.take(out);
}

bool dmsClmReadPicture(const std::string &path, const mfdMediaInfo &info, std::string &out) {
  const mfdFormatRow *row = mfd_formatRow(info.formatId);
  if (row == nullptr) return false;
  return dmsGuard("dmsClmReadPicture", false, [&] {
    dmsClmRouteTagLibMessages();
    const std::unique_ptr<TagLib::FileStream> stream = dmsClmOpenStream(path);  // never for writing
    if (stream == nullptr) return false;
    std::unique_ptr<TagLib::File> file = dmsClmOpenTagged(row->tags, stream.get());
    return file != nullptr && file->isValid() && dmsClmPictureOf(*file, &out);
  });
}
