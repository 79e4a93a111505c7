// One application in the mixer: its icon, name, the words of its level, the
// level slider, mute and solo. The tool tip shows how its level, its groups'
// and their mutes make what it plays at; a screen reader hears the same as
// a sentence. A remembered app that is silent now can be forgotten.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

FocusScope {
    id: strip
    property string appId
    property string name
    property string icon
    property real level: 1
    property bool muted: false
    property bool soloed: false
    property bool playing: true
    property string arithmetic
    property string description
    property int hue: -1
    // Another app holds the solo: this one is silent for now.
    readonly property bool silencedBySolo: App.mixer.soloedApp !== "" && !soloed

    implicitHeight: 56
    objectName: "app." + appId
    activeFocusOnTab: true
    Accessible.role: Accessible.Grouping
    Accessible.name: name
    Accessible.description: description

    Rectangle {
        anchors.fill: parent
        anchors.leftMargin: strip.hue >= 0 ? 22 : 0
        radius: Theme.radius
        color: Theme.surface
        border.color: strip.activeFocus ? Theme.accent : Theme.border
        border.width: strip.activeFocus ? 2 : 1
        opacity: strip.playing ? 1 : 0.7

        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: Theme.gap + 2
            anchors.rightMargin: Theme.gap
            spacing: Theme.gap + 4

            Item {
                Layout.preferredWidth: 32
                Layout.preferredHeight: 32
                Accessible.ignored: true
                Image {
                    id: iconImage
                    anchors.fill: parent
                    source: strip.icon
                    sourceSize.width: 64
                    sourceSize.height: 64
                    fillMode: Image.PreserveAspectFit
                    asynchronous: true
                    visible: status === Image.Ready
                }
                // Without an icon: the name's first letter on a tile.
                Rectangle {
                    anchors.fill: parent
                    visible: iconImage.status !== Image.Ready
                    radius: 8
                    color: strip.hue >= 0 ? Theme.rowColour(strip.hue) : Theme.textMuted
                    Text {
                        anchors.centerIn: parent
                        textFormat: Text.PlainText
                        text: strip.name.length > 0 ? strip.name.charAt(0).toUpperCase() : "?"
                        color: "#ffffff"
                        font.pixelSize: 16
                        font.weight: Font.Bold
                    }
                }
            }

            ColumnLayout {
                Layout.fillWidth: true
                Layout.minimumWidth: 140
                spacing: 2
                Label {
                    objectName: "app." + strip.appId + ".name"
                    Layout.fillWidth: true
                    textFormat: Text.PlainText
                    text: strip.name
                    elide: Text.ElideRight
                    font.pixelSize: Theme.bodySize + 1
                    font.weight: Font.DemiBold
                    color: Theme.text
                }
                Label {
                    objectName: "app." + strip.appId + ".words"
                    Layout.fillWidth: true
                    textFormat: Text.PlainText
                    text: strip.silencedBySolo ? qsTr("Silent while another app plays solo")
                        : strip.playing ? strip.arithmetic
                        : qsTr("Not playing") + " · " + strip.arithmetic
                    elide: Text.ElideRight
                    font.pixelSize: Theme.smallSize
                    color: Theme.textMuted
                }
            }

            Slider {
                id: slider
                objectName: "app." + strip.appId + ".level"
                Layout.preferredWidth: 200
                from: 0
                to: 1
                value: strip.level
                opacity: strip.muted ? 0.5 : 1
                Accessible.name: qsTr("Level of %1").arg(strip.name)
                Accessible.description: strip.description
                ToolTip.visible: pressed || hovered
                ToolTip.text: strip.arithmetic
                onMoved: App.mixer.setAppLevel(strip.appId, value)
            }
            Label {
                Layout.preferredWidth: 40
                textFormat: Text.PlainText
                horizontalAlignment: Text.AlignRight
                text: Math.floor(slider.value * 100) + "%"
                color: Theme.textMuted
                font.pixelSize: Theme.smallSize + 1
                Accessible.ignored: true
            }

            ChipButton {
                objectName: "app." + strip.appId + ".mute"
                text: qsTr("M")
                onColour: Theme.warn
                checked: strip.muted
                Accessible.name: strip.muted ? qsTr("Unmute %1").arg(strip.name)
                                             : qsTr("Mute %1").arg(strip.name)
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Mute")
                onToggled: { App.mixer.toggleAppMute(strip.appId); checked = Qt.binding(() => strip.muted) }
            }
            ChipButton {
                objectName: "app." + strip.appId + ".solo"
                text: qsTr("S")
                checked: strip.soloed
                enabled: strip.playing || strip.soloed
                Accessible.name: strip.soloed ? qsTr("Stop soloing %1").arg(strip.name)
                                              : qsTr("Solo %1").arg(strip.name)
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Solo: hear only this app")
                onToggled: { App.mixer.toggleAppSolo(strip.appId); checked = Qt.binding(() => strip.soloed) }
            }
            ToolButton {
                objectName: "app." + strip.appId + ".forget"
                Layout.preferredWidth: 30
                text: "\u00D7"
                font.pixelSize: 16
                opacity: strip.playing ? 0 : 1
                enabled: !strip.playing
                Accessible.name: qsTr("Forget %1").arg(strip.name)
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Forget this app and its level")
                onClicked: App.mixer.forgetApp(strip.appId)
            }
        }
    }
}
