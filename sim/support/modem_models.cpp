#include "sim/support/modem_models.h"

namespace sim {

const std::vector<ModemModel>& modemModels() {
    static const std::vector<ModemModel> models = {
        {"EM820W", "huawei", true, 0},
        {"MU709s-2", "Huawei Technologies Co., Ltd.", true, 0},
        {"ME909u-521", "Huawei Technologies Co., Ltd.", true, 0},
        {"ME909u-523", "Huawei Technologies Co., Ltd.", true, 0},
        {"EM7565", "Sierra Wireless, Incorporated", false, 0},
        {"4105", "TELID", false, 0},
        {"SIM7906E", "SIMCOM INCORPORATED", false, 0},
        {"ME909s-120", "Huawei Technologies Co., Ltd.", true, 1},
        {"ME906s-158", "Huawei Technologies Co., Ltd.", true, 1},
        {"K9000", "Unlisted Modems", false, 0},
    };
    return models;
}

const ModemModel* findModel(const std::string& name) {
    for (const ModemModel& model : modemModels()) {
        if (name == model.name) return &model;
    }
    return nullptr;
}

}  // namespace sim
