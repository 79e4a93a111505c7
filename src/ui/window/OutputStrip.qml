// One output row: its name (renamed in place), subtitle, level, mute, solo,
// volume, delay, equaliser and menu. Dragged by its handle to another place;
// Alt+Up and Alt+Down move it with the keyboard, F2 renames it.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

FocusScope {
    id: strip
    required property int index
    required property int slot
    required property string name
    required property string originalName
    required property string subtitle
    required property real volume
    required property bool muted
    required property bool soloed
    required property bool disabled
    required property real delayMs
    required property real level
    required property bool connected
    required property int hue
    required property bool guest
    required property bool canReconnect
    required property bool canEnterPassword
    required property bool canCalibrate
    required property bool measureHint
    required property bool canPair
    required property bool eqOn
    property bool first: false
    property bool last: false
    // Set while another strip is dragged over this one.
    property bool dropTarget: false

    signal eqRequested(int slot)
    signal measureRequested(int slot)
    signal removed(int slot)
    signal dragMoved(real sceneY)
    signal dragEnded(int slot, real sceneY)

    implicitHeight: 68
    objectName: "row." + slot
    activeFocusOnTab: true
    Accessible.role: Accessible.Grouping
    Accessible.name: name + ", " + subtitle

    function beginRename() {
        nameField.text = strip.name
        nameField.visible = true
        nameField.selectAll()
        nameField.forceActiveFocus()
    }

    Keys.onPressed: (event) => {
        if ((event.modifiers & Qt.AltModifier) && event.key === Qt.Key_Up) {
            App.moveRowBy(slot, -1); event.accepted = true
        } else if ((event.modifiers & Qt.AltModifier) && event.key === Qt.Key_Down) {
            App.moveRowBy(slot, 1); event.accepted = true
        } else if (event.key === Qt.Key_F2) {
            beginRename(); event.accepted = true
        } else if (event.key === Qt.Key_Menu) {
            rowMenu.popup(menuButton, 0, menuButton.height); event.accepted = true
        }
    }

    Rectangle {
        id: card
        width: strip.width
        height: strip.height
        radius: Theme.radius
        color: strip.dropTarget ? Qt.rgba(Theme.accent.r, Theme.accent.g, Theme.accent.b, 0.12)
                                : Theme.surface
        border.color: strip.activeFocus ? Theme.accent : Theme.border
        border.width: strip.activeFocus ? 2 : 1
        opacity: strip.disabled ? 0.6 : 1
        z: handleArea.drag.active ? 10 : 0

        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: Theme.gap
            anchors.rightMargin: Theme.gap
            spacing: Theme.gap + 4

            // Drag handle.
            Item {
                objectName: "row." + strip.slot + ".handle"
                Layout.preferredWidth: 18
                Layout.fillHeight: true
                visible: !strip.guest
                Accessible.name: qsTr("Move %1").arg(strip.name)
                Grid {
                    anchors.centerIn: parent
                    columns: 2
                    spacing: 3
                    Repeater {
                        model: 6
                        Rectangle { width: 3; height: 3; radius: 1.5; color: Theme.textMuted }
                    }
                }
                MouseArea {
                    id: handleArea
                    anchors.fill: parent
                    cursorShape: drag.active ? Qt.ClosedHandCursor : Qt.OpenHandCursor
                    drag.target: card
                    drag.axis: Drag.YAxis
                    onPositionChanged: (mouse) => {
                        if (drag.active) strip.dragMoved(mapToItem(null, mouse.x, mouse.y).y)
                    }
                    onReleased: (mouse) => {
                        const y = mapToItem(null, mouse.x, mouse.y).y
                        card.y = 0
                        strip.dragEnded(strip.slot, y)
                    }
                }
            }

            Rectangle {
                Layout.preferredWidth: 10
                Layout.preferredHeight: 10
                radius: 5
                color: strip.connected ? Theme.rowColour(strip.hue) : "transparent"
                border.color: Theme.rowColour(strip.hue)
                border.width: 2
                Accessible.ignored: true
            }

            ColumnLayout {
                Layout.fillWidth: true
                Layout.minimumWidth: 140
                spacing: 2
                Item {
                    Layout.fillWidth: true
                    implicitHeight: Math.max(nameLabel.implicitHeight, nameField.implicitHeight * 0)
                    Label {
                        id: nameLabel
                        textFormat: Text.PlainText
                        objectName: "row." + strip.slot + ".name"
                        width: parent.width
                        text: strip.name
                        visible: !nameField.visible
                        elide: Text.ElideRight
                        font.pixelSize: Theme.titleSize
                        font.weight: Font.DemiBold
                        color: Theme.text
                        MouseArea {
                            anchors.fill: parent
                            onDoubleClicked: strip.beginRename()
                        }
                    }
                    TextField {
                        id: nameField
                        objectName: "row." + strip.slot + ".nameField"
                        visible: false
                        width: parent.width
                        anchors.verticalCenter: parent.verticalCenter
                        Accessible.name: qsTr("Name of the output")
                        // The field's own placeholder would read a name with
                        // markup in it as markup; this one never does.
                        Label {
                            textFormat: Text.PlainText
                            objectName: "row." + strip.slot + ".namePlaceholder"
                            anchors.fill: parent
                            leftPadding: nameField.leftPadding
                            rightPadding: nameField.rightPadding
                            verticalAlignment: Text.AlignVCenter
                            text: strip.originalName
                            visible: nameField.text.length === 0
                            elide: Text.ElideRight
                            color: Theme.textMuted
                        }
                        function finish(commit) {
                            if (!visible) return
                            visible = false
                            if (commit) App.rename(strip.slot, text)
                            strip.forceActiveFocus()
                        }
                        onAccepted: finish(true)
                        onActiveFocusChanged: if (!activeFocus) finish(true)
                        Keys.onEscapePressed: finish(false)
                    }
                }
                Label {
                    textFormat: Text.PlainText
                    objectName: "row." + strip.slot + ".subtitle"
                    Layout.fillWidth: true
                    text: strip.subtitle
                    elide: Text.ElideRight
                    font.pixelSize: Theme.smallSize
                    color: Theme.textMuted
                }
                // Bluetooth speakers are late by more than they say, and by
                // an amount only a measurement finds.
                RowLayout {
                    objectName: "row." + strip.slot + ".measureHint"
                    visible: strip.measureHint
                    Layout.fillWidth: true
                    spacing: 6
                    Label {
                        textFormat: Text.PlainText
                        Layout.fillWidth: true
                        text: qsTr("Bluetooth plays late. Measure it to keep it in time.")
                        elide: Text.ElideRight
                        font.pixelSize: Theme.smallSize
                        color: Theme.text
                    }
                    ToolButton {
                        objectName: "row." + strip.slot + ".measureHint.measure"
                        text: qsTr("Measure delay…")
                        font.pixelSize: Theme.smallSize
                        onClicked: strip.measureRequested(strip.slot)
                    }
                    ToolButton {
                        objectName: "row." + strip.slot + ".measureHint.dismiss"
                        text: "\u2715"
                        font.pixelSize: Theme.smallSize
                        Accessible.name: qsTr("Dismiss the hint to measure %1").arg(strip.name)
                        onClicked: App.dismissMeasureHint(strip.slot)
                    }
                }
            }

            LevelMeter {
                objectName: "row." + strip.slot + ".meter"
                Layout.preferredWidth: 120
                Layout.alignment: Qt.AlignVCenter
                level: strip.level
                active: !strip.muted && !strip.disabled
                Accessible.name: qsTr("Level of %1").arg(strip.name)
            }

            ChipButton {
                objectName: "row." + strip.slot + ".mute"
                text: qsTr("M")
                onColour: Theme.warn
                checked: strip.muted
                Accessible.name: strip.muted ? qsTr("Unmute %1").arg(strip.name)
                                             : qsTr("Mute %1").arg(strip.name)
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Mute")
                onToggled: { App.toggleMuted(strip.slot); checked = Qt.binding(() => strip.muted) }
            }
            ChipButton {
                objectName: "row." + strip.slot + ".solo"
                text: qsTr("S")
                checked: strip.soloed
                Accessible.name: strip.soloed ? qsTr("Stop soloing %1").arg(strip.name)
                                              : qsTr("Solo %1").arg(strip.name)
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Solo: play only this output")
                onToggled: { App.toggleSolo(strip.slot); checked = Qt.binding(() => strip.soloed) }
            }

            Slider {
                objectName: "row." + strip.slot + ".volume"
                Layout.preferredWidth: 130
                from: 0
                to: 1
                value: strip.volume
                Accessible.name: qsTr("Volume of %1").arg(strip.name)
                ToolTip.visible: pressed || hovered
                ToolTip.text: Math.round(value * 100) + "%"
                onMoved: App.setVolume(strip.slot, value)
            }

            DelayControl {
                objectName: "row." + strip.slot + ".delay"
                slot: strip.slot
                delayMs: strip.delayMs
            }

            ChipButton {
                objectName: "row." + strip.slot + ".eq"
                text: qsTr("EQ")
                implicitWidth: 40
                checkable: false
                checked: strip.eqOn
                enabled: App.hasSheets
                Accessible.name: qsTr("Equaliser of %1").arg(strip.name)
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Equaliser")
                onClicked: strip.eqRequested(strip.slot)
            }

            ToolButton {
                id: menuButton
                objectName: "row." + strip.slot + ".menuButton"
                text: "\u22EF"
                font.pixelSize: 18
                Accessible.name: qsTr("More for %1").arg(strip.name)
                onClicked: rowMenu.popup(menuButton, 0, menuButton.height)
            }
        }
    }

    RowMenu {
        id: rowMenu
        objectName: "row." + strip.slot + ".menu"
        slot: strip.slot
        rowName: strip.name
        disabledRow: strip.disabled
        canReconnect: strip.canReconnect
        canEnterPassword: strip.canEnterPassword
        canCalibrate: strip.canCalibrate
        onMeasureAsked: strip.measureRequested(strip.slot)
        canPair: strip.canPair
        first: strip.first
        last: strip.last
        onRenameAsked: strip.beginRename()
        onRemoved: strip.removed(strip.slot)
    }
}
