/* A media controller: device information, entities, links and link setup. */
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "fake_v4l2_internal.h"

namespace marlo_fake {

namespace {

template <size_t N>
void CopyName(char (&dst)[N], const std::string& src) {
    memset(dst, 0, N);
    memcpy(dst, src.data(), std::min(N - 1, src.size()));
}

}  // namespace

FakeMediaNode::FakeMediaNode(std::string path, MediaNodeConfig config)
    : FakeNode(std::move(path)), config_(std::move(config)) {}

std::vector<MediaLink> FakeMediaNode::Links() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return config_.links;
}

int FakeMediaNode::Ioctl(OpenFile, unsigned long request, void* arg,
                         std::unique_lock<std::mutex>&) {
    switch (request) {
        case MEDIA_IOC_DEVICE_INFO: {
            auto* info = static_cast<media_device_info*>(arg);
            memset(info, 0, sizeof(*info));
            CopyName(info->driver, config_.driver);
            CopyName(info->model, config_.model);
            CopyName(info->serial, config_.serial);
            CopyName(info->bus_info, config_.busInfo);
            info->media_version = 0x060100;
            info->driver_version = 0x060100;
            return 0;
        }
        case MEDIA_IOC_G_TOPOLOGY: {
            /* Entities are filled when the caller gives room; links are only counted. */
            auto* topo = static_cast<media_v2_topology*>(arg);
            topo->topology_version = config_.topologyVersion;
            if (topo->ptr_entities != 0) {
                if (topo->num_entities < config_.entities.size())
                    return ENOSPC;
                auto* out = reinterpret_cast<media_v2_entity*>(topo->ptr_entities);
                for (size_t i = 0; i < config_.entities.size(); ++i) {
                    out[i] = {};
                    out[i].id = config_.entities[i].id;
                    CopyName(out[i].name, config_.entities[i].name);
                    out[i].function = config_.entities[i].function;
                }
            }
            topo->num_entities = static_cast<uint32_t>(config_.entities.size());
            topo->num_links = static_cast<uint32_t>(config_.links.size());
            topo->num_interfaces = 0;
            topo->num_pads = 0;
            for (const auto& entity : config_.entities)
                topo->num_pads += entity.pads;
            return 0;
        }
        case MEDIA_IOC_ENUM_ENTITIES: {
            auto* desc = static_cast<media_entity_desc*>(arg);
            const bool next = desc->id & MEDIA_ENT_ID_FLAG_NEXT;
            const uint32_t id = desc->id & ~MEDIA_ENT_ID_FLAG_NEXT;
            const MediaEntity* found = nullptr;
            for (const auto& entity : config_.entities) {
                if (next ? entity.id > id && (found == nullptr || entity.id < found->id)
                         : entity.id == id)
                    found = &entity;
            }
            if (found == nullptr)
                return EINVAL;
            memset(desc, 0, sizeof(*desc));
            desc->id = found->id;
            CopyName(desc->name, found->name);
            desc->type = found->function;
            desc->pads = found->pads;
            for (const auto& link : config_.links)
                desc->links += link.sourceEntity == found->id;
            return 0;
        }
        case MEDIA_IOC_ENUM_LINKS: {
            auto* links = static_cast<media_links_enum*>(arg);
            const MediaEntity* entity = nullptr;
            for (const auto& e : config_.entities)
                if (e.id == links->entity)
                    entity = &e;
            if (entity == nullptr)
                return EINVAL;
            if (links->pads != nullptr) {
                for (uint16_t p = 0; p < entity->pads; ++p) {
                    links->pads[p] = {};
                    links->pads[p].entity = entity->id;
                    links->pads[p].index = p;
                }
            }
            if (links->links != nullptr) {
                size_t n = 0;
                for (const auto& link : config_.links) {
                    if (link.sourceEntity != entity->id)
                        continue;
                    media_link_desc& out = links->links[n++];
                    out = {};
                    out.source.entity = link.sourceEntity;
                    out.source.index = link.sourcePad;
                    out.sink.entity = link.sinkEntity;
                    out.sink.index = link.sinkPad;
                    out.flags = link.flags;
                }
            }
            return 0;
        }
        case MEDIA_IOC_SETUP_LINK: {
            auto* desc = static_cast<media_link_desc*>(arg);
            for (auto& link : config_.links) {
                if (link.sourceEntity == desc->source.entity &&
                    link.sourcePad == desc->source.index && link.sinkEntity == desc->sink.entity &&
                    link.sinkPad == desc->sink.index) {
                    if (link.flags & MEDIA_LNK_FL_IMMUTABLE)
                        return EINVAL;
                    link.flags = (link.flags & ~uint32_t{MEDIA_LNK_FL_ENABLED}) |
                                 (desc->flags & MEDIA_LNK_FL_ENABLED);
                    return 0;
                }
            }
            return EINVAL;
        }
        default:
            return ENOTTY;
    }
}

void FakeMediaNode::Describe(unsigned long request, const void* arg, RequestRecord& r) const {
    switch (request) {
        case MEDIA_IOC_ENUM_ENTITIES:
            r.index = static_cast<const media_entity_desc*>(arg)->id;
            break;
        case MEDIA_IOC_ENUM_LINKS:
            r.index = static_cast<const media_links_enum*>(arg)->entity;
            break;
        case MEDIA_IOC_SETUP_LINK:
            r.flags = static_cast<const media_link_desc*>(arg)->flags;
            break;
        default:
            break;
    }
}

}  // namespace marlo_fake
