#include "secrets/libsecret_store.h"

#include <libsecret/secret.h>

#include <cstdio>

namespace vt::secrets {

namespace {

const SecretSchema* schema() {
    // Matched by attributes alone, so items other tools made with the same
    // service and account are found too.
    static const SecretSchema s = {"org.vellatone.Secret",
                                   SECRET_SCHEMA_DONT_MATCH_NAME,
                                   {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                    {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                    {nullptr, SecretSchemaAttributeType(0)}}};
    return &s;
}

void complain(const char* what, GError* error) {
    std::fprintf(stderr, "Vellatone: the Secret Service could not %s: %s\n", what,
                 error ? error->message : "no reason given");
    if (error) g_error_free(error);
}

}  // namespace

bool LibsecretStore::serviceRunning() {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!bus) {
        if (error) g_error_free(error);
        return false;
    }
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", "org.freedesktop.secrets"), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, 2000, nullptr, &error);
    g_object_unref(bus);
    if (!reply) {
        if (error) g_error_free(error);
        return false;
    }
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
    return owned;
}

std::optional<std::string> LibsecretStore::get(const std::string& service,
                                               const std::string& account) {
    GError* error = nullptr;
    gchar* found = secret_password_lookup_sync(
        schema(), nullptr, &error, "service", service.c_str(), "account", account.c_str(), nullptr);
    if (error) {
        complain("read a password", error);
        return std::nullopt;
    }
    if (!found) return std::nullopt;
    std::string text = found;
    secret_password_free(found);
    return text;
}

bool LibsecretStore::set(const std::string& service, const std::string& account,
                         const std::string& text) {
    GError* error = nullptr;
    if (text.empty()) {
        secret_password_clear_sync(schema(), nullptr, &error, "service", service.c_str(), "account",
                                   account.c_str(), nullptr);
        if (error) {
            complain("remove a password", error);
            return false;
        }
        return true;
    }
    const std::string label = service + " for " + account;
    const gboolean kept = secret_password_store_sync(
        schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), text.c_str(), nullptr, &error,
        "service", service.c_str(), "account", account.c_str(), nullptr);
    if (!kept) {
        complain("keep a password", error);
        return false;
    }
    return true;
}

}  // namespace vt::secrets
