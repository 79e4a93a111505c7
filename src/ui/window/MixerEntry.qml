// One line of the mixer's list: a group's header or an app's strip, as the
// list model says.
import QtQuick
import Vellatone

Item {
    id: entry
    required property string kind
    required property string itemId
    required property string name
    required property string icon
    required property real level
    required property bool muted
    required property bool soloed
    required property bool playing
    required property string arithmetic
    required property string description
    required property int hue
    required property bool folded
    required property string detail
    signal editRequested(string groupId)

    implicitHeight: loader.item ? loader.item.implicitHeight : 0

    Loader {
        id: loader
        width: entry.width
        sourceComponent: entry.kind === "group" ? groupComponent : appComponent
    }
    Component {
        id: groupComponent
        GroupHeader {
            groupId: entry.itemId
            name: entry.name
            level: entry.level
            muted: entry.muted
            folded: entry.folded
            hue: entry.hue
            rule: entry.detail
            onEditRequested: (id) => entry.editRequested(id)
        }
    }
    Component {
        id: appComponent
        AppStrip {
            appId: entry.itemId
            name: entry.name
            icon: entry.icon
            level: entry.level
            muted: entry.muted
            soloed: entry.soloed
            playing: entry.playing
            arithmetic: entry.arithmetic
            description: entry.description
            hue: entry.hue
        }
    }
}
