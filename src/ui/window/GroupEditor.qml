// Makes a group or changes one: its name (the user's own groups), which apps
// it holds, and for an automatic group the way back to its rule. Nothing
// changes until "Done".
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

Popup {
    id: editor
    objectName: "groupEditor"
    modal: true
    focus: true
    padding: Theme.pad
    width: 380
    closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside

    property string groupId: ""
    property bool custom: true
    property string rule: ""
    property bool corrections: false
    property var apps: []
    // The ids ticked now, by id.
    property var chosen: ({})

    function openFor(id) {
        const g = App.mixer.groupForEditing(id)
        if (g.id === undefined) return
        groupId = g.id
        custom = g.custom
        rule = g.rule
        corrections = g.corrections
        nameField.text = id === "" ? qsTr("New group") : g.name
        const ticked = {}
        for (const a of g.apps) if (a.member) ticked[a.id] = true
        chosen = ticked
        apps = g.apps
        open()
        if (custom) {
            nameField.selectAll()
            nameField.forceActiveFocus()
        }
    }

    function finish() {
        const members = []
        for (const a of apps) if (chosen[a.id]) members.push(a.id)
        App.mixer.saveGroup(groupId, nameField.text, members)
        close()
    }

    background: Rectangle {
        color: Theme.surface
        radius: Theme.radius + 2
        border.color: Theme.border
    }

    contentItem: ColumnLayout {
        spacing: Theme.gap
        Label {
            textFormat: Text.PlainText
            text: editor.groupId === "" ? qsTr("New group") : qsTr("Edit group")
            font.pixelSize: Theme.titleSize
            font.weight: Font.DemiBold
            color: Theme.text
        }
        TextField {
            id: nameField
            objectName: "groupEditor.name"
            Layout.fillWidth: true
            enabled: editor.custom
            maximumLength: 64
            Accessible.name: qsTr("Name of the group")
            onAccepted: editor.finish()
        }
        Label {
            Layout.fillWidth: true
            visible: editor.rule !== ""
            textFormat: Text.PlainText
            text: editor.rule
            wrapMode: Text.WordWrap
            color: Theme.textMuted
            font.pixelSize: Theme.smallSize + 1
        }
        Label {
            textFormat: Text.PlainText
            text: editor.apps.length > 0 ? qsTr("Apps in this group")
                                         : qsTr("No apps have played yet.")
            color: Theme.text
        }
        ScrollView {
            Layout.fillWidth: true
            Layout.preferredHeight: Math.min(240, appColumn.implicitHeight)
            visible: editor.apps.length > 0
            clip: true
            ColumnLayout {
                id: appColumn
                width: parent.width
                spacing: 0
                Repeater {
                    model: editor.apps
                    CheckBox {
                        required property var modelData
                        objectName: "groupEditor.app." + modelData.id
                        Layout.fillWidth: true
                        text: modelData.name
                        checked: editor.chosen[modelData.id] === true
                        Accessible.name: modelData.name
                        onToggled: {
                            const next = Object.assign({}, editor.chosen)
                            next[modelData.id] = checked
                            editor.chosen = next
                        }
                        contentItem: Text {
                            leftPadding: parent.indicator.width + parent.spacing
                            textFormat: Text.PlainText
                            text: parent.text
                            color: Theme.text
                            verticalAlignment: Text.AlignVCenter
                            elide: Text.ElideRight
                        }
                    }
                }
            }
        }
        RowLayout {
            Layout.fillWidth: true
            Layout.topMargin: Theme.gap
            PillButton {
                objectName: "groupEditor.remove"
                visible: editor.custom && editor.groupId !== ""
                text: qsTr("Remove group")
                Accessible.name: text
                onClicked: { App.mixer.removeGroup(editor.groupId); editor.close() }
            }
            PillButton {
                objectName: "groupEditor.reset"
                visible: !editor.custom && editor.corrections
                text: qsTr("Back to the rule")
                Accessible.name: text
                onClicked: { App.mixer.resetGroup(editor.groupId); editor.close() }
            }
            Item { Layout.fillWidth: true }
            PillButton {
                objectName: "groupEditor.cancel"
                text: qsTr("Cancel")
                Accessible.name: text
                onClicked: editor.close()
            }
            PillButton {
                objectName: "groupEditor.done"
                text: qsTr("Done")
                primary: true
                Accessible.name: text
                onClicked: editor.finish()
            }
        }
    }
}
