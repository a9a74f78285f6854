import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Quorlix

// Nearby beacons, one device's presence and a pairing list: all of it from `import Quorlix`.
ApplicationWindow {
    id: window
    width: 1120
    height: 620
    visible: true
    title: qsTr("Quorlix in Qt Quick")

    readonly property var words: ["Unknown", "Immediate", "Near", "Far"]
    readonly property var colours: ["#9e9e9e", "#2e7d32", "#f9a825", "#c62828"]

    function clock() { return new Date().toLocaleTimeString(Qt.locale(), "hh:mm:ss") }

    RowLayout {
        anchors.fill: parent
        anchors.margins: 16
        spacing: 16

        // The beacons in range, nearest first.
        Frame {
            Layout.fillHeight: true
            Layout.preferredWidth: 430
            ColumnLayout {
                anchors.fill: parent
                Label {
                    text: qsTr("Nearby beacons (%1)").arg(beacons.count)
                    font.pixelSize: 18
                    font.bold: true
                }
                Label {
                    visible: beacons.error !== ""
                    text: beacons.error
                    color: "firebrick"
                }
                ListView {
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    clip: true
                    spacing: 6
                    model: BeaconModel { id: beacons }
                    move: Transition { NumberAnimation { properties: "y"; duration: 300 } }
                    displaced: Transition { NumberAnimation { properties: "y"; duration: 300 } }
                    delegate: Rectangle {
                        required property int major
                        required property int minor
                        required property int rssi
                        required property int proximity
                        required property real distance
                        width: ListView.view.width
                        height: 52
                        radius: 6
                        color: "#f4f6f8"
                        Rectangle {
                            width: 8
                            height: parent.height
                            radius: 3
                            color: window.colours[proximity] ?? "#9e9e9e"
                        }
                        Column {
                            x: 20
                            anchors.verticalCenter: parent.verticalCenter
                            Label {
                                text: qsTr("beacon %1-%2").arg(major).arg(minor)
                                font.bold: true
                            }
                            Label {
                                text: distance < 0 ? qsTr("not heard lately")
                                                   : qsTr("%1 · %2 m · %3 dBm")
                                                     .arg(window.words[proximity])
                                                     .arg(distance.toFixed(2)).arg(rssi)
                                opacity: 0.75
                            }
                        }
                        Rectangle {
                            anchors.right: parent.right
                            anchors.rightMargin: 12
                            anchors.verticalCenter: parent.verticalCenter
                            height: 8
                            radius: 4
                            width: rssi === 0 ? 0 : Math.max(4, (rssi + 100) * 2)
                            color: window.colours[proximity] ?? "#9e9e9e"
                            Behavior on width { NumberAnimation { duration: 300 } }
                        }
                    }
                }
            }
        }

        // One device, named by its ID in the directory.
        Frame {
            Layout.fillHeight: true
            Layout.preferredWidth: 300
            DevicePresence {
                id: presence
                deviceId: "1047"
                onEntered: events.insert(0, { line: clock() + "  entered" })
                onExited: events.insert(0, { line: clock() + "  exited" })
            }
            ListModel { id: events }
            ColumnLayout {
                anchors.fill: parent
                Label {
                    text: qsTr("Device %1").arg(presence.deviceId)
                    font.pixelSize: 18
                    font.bold: true
                }
                Label {
                    text: presence.majorMinor ? qsTr("beacon %1").arg(presence.majorMinor) : ""
                    opacity: 0.75
                }
                Label {
                    Layout.fillWidth: true
                    visible: presence.error !== ""
                    text: presence.error
                    color: "firebrick"
                    wrapMode: Text.Wrap
                }
                Rectangle {
                    Layout.alignment: Qt.AlignHCenter
                    Layout.topMargin: 12
                    width: 120
                    height: 120
                    radius: 60
                    color: presence.present ? window.colours[presence.proximity] ?? "#9e9e9e"
                                            : "#e0e0e0"
                    Behavior on color { ColorAnimation { duration: 300 } }
                    Label {
                        anchors.centerIn: parent
                        text: presence.present ? qsTr("near") : qsTr("away")
                        color: presence.present ? "white" : "#616161"
                        font.pixelSize: 22
                        font.bold: true
                    }
                }
                Label {
                    Layout.alignment: Qt.AlignHCenter
                    text: presence.distance < 0 ? " "
                                                : qsTr("%1 · %2 m · %3 dBm")
                                                  .arg(window.words[presence.proximity])
                                                  .arg(presence.distance.toFixed(2))
                                                  .arg(presence.rssi)
                }
                Label {
                    Layout.topMargin: 12
                    text: qsTr("Events")
                    font.bold: true
                }
                ListView {
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    clip: true
                    model: events
                    delegate: Label { required property string line; text: line }
                }
            }
        }

        // Pairing, without a QWidget.
        Frame {
            Layout.fillHeight: true
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                PairingList {
                    id: pairingList
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    appId: "com.example.quick-demo"
                    onPaired: key => { paired.text = qsTr("paired with device %1").arg(key); visible = false }
                    onCancelled: { paired.text = qsTr("pairing cancelled"); visible = false }
                }
                Label { id: paired; visible: !pairingList.visible }
                Button {
                    visible: !pairingList.visible
                    text: qsTr("Pair again")
                    onClicked: pairingList.visible = true
                }
            }
        }
    }
}
