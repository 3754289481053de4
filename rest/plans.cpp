#include "service/plans.h"

#include "rest/owner.h"
#include "rest/resources.h"
#include "rest/restcall.h"

#include <QJsonArray>

namespace {

QJsonObject object(const SchedulePlan& plan) {
    return {{QStringLiteral("id"), plan.id},
            {QStringLiteral("name"), plan.name},
            {QStringLiteral("exceptional"), plan.isExceptional}};
}

std::optional<std::optional<SchedulePlan>> named(const RestCall& call) {
    return findPlan(call.database(), ownerOf(call), call.id());
}

void readPlan(RestCall& call, SchedulePlan& plan) {
    const Fields& body = call.body();
    plan.name = body.text("name", 1, LongestObjectName).value_or(plan.name);
    plan.isExceptional = body.flag("exceptional").value_or(plan.isExceptional);
    refuseNull(body, {"name", "exceptional"});
}

RestAnswer listOfPlans(RestCall& call) {
    const Page page = call.page();
    if (!call.fits())
        return call.misfit();
    return pageOf(page, listPlans(call.database(), ownerOf(call), page.afterId(), page.wanted()), object,
                  [](const SchedulePlan& plan) { return plan.id; });
}

RestAnswer newPlan(RestCall& call) {
    SchedulePlan plan;
    plan.owner = call.caller().account;
    call.body().need({"name"});
    readPlan(call, plan);
    if (!call.fits())
        return call.misfit();
    return storePlan(call.database(), plan) ? created(QStringLiteral("/plans/%1").arg(plan.id), object(plan))
                                            : unavailable();
}

RestAnswer getPlan(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [](const SchedulePlan& plan) { return ok(object(plan)); });
}

RestAnswer editPlan(RestCall& call) {
    return withObject(named(call), [&call](SchedulePlan plan) {
        readPlan(call, plan);
        if (!call.fits())
            return call.misfit();
        return storePlan(call.database(), plan) ? ok(object(plan)) : unavailable();
    });
}

RestAnswer deletePlan(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    return withObject(named(call), [&call](const SchedulePlan& plan) {
        const auto isNamed = isPlanNamed(call.database(), plan.id);
        if (isNamed.value_or(false))
            return problem(409, QStringLiteral("a calendar's entry names the plan"));
        return isNamed && removePlan(call.database(), plan.id) ? noContent() : unavailable();
    });
}

} // namespace

void addPlanRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/plans", listOfPlans, Who::Account, Paged},
        {"POST", "/plans", newPlan, Who::Account, 0, Takes::Object},
        {"GET", "/plans/{id}", getPlan},
        {"PATCH", "/plans/{id}", editPlan, Who::Account, 0, Takes::Object},
        {"DELETE", "/plans/{id}", deletePlan},
    });
}
